// Memberwise hashing for NetCore's value types: every field is fed in
// declaration order, so values that compare equal hash equally. Pairs feed
// both members, optionals a presence marker and sequences their length, so
// that (none, x) and (x) or [a][b] and [a, b] do not collide by construction.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <ranges>
#include <string>
#include <type_traits>

#include "support/date.h"

namespace netvane {

class Hasher {
public:
    template <class... Ts>
    Hasher& combine(const Ts&... values) {
        (feed(values), ...);
        return *this;
    }

    std::size_t value() const { return static_cast<std::size_t>(state_); }

private:
    template <class T>
    void feed(const T& v) {
        if constexpr (std::same_as<T, std::string>) {
            mix(std::hash<std::string>{}(v));
        } else if constexpr (std::same_as<T, Date>) {
            feed(v.secondsSinceReference);
        } else if constexpr (std::is_enum_v<T>) {
            mix(static_cast<std::uint64_t>(v));
        } else if constexpr (requires { v.first; v.second; }) {
            feed(v.first);
            feed(v.second);
        } else if constexpr (requires { v.has_value(); *v; }) {
            mix(v.has_value());
            if (v) feed(*v);
        } else if constexpr (std::ranges::range<T>) {
            mix(std::ranges::size(v));
            for (const auto& element : v) feed(element);
        } else {
            mix(std::hash<T>{}(v));
        }
    }

    // 64-bit finaliser of a well-known mixer: spreads identity-hashed
    // integers (the standard library's choice) across the whole word.
    void mix(std::uint64_t h) {
        std::uint64_t x = state_ ^ (h + 0x9e3779b97f4a7c15ULL + (state_ << 6) + (state_ >> 2));
        x ^= x >> 30;
        x *= 0xbf58476d1ce4e5b9ULL;
        x ^= x >> 27;
        x *= 0x94d049bb133111ebULL;
        x ^= x >> 31;
        state_ = x;
    }

    std::uint64_t state_ = 0;
};

template <class... Ts>
std::size_t hashFields(const Ts&... values) {
    return Hasher().combine(values...).value();
}

}  // namespace netvane

// Declares std::hash<T> for a NetCore value type; the definition (in the
// type's source file) feeds its fields through hashFields.
#define NETVANE_DECLARE_HASH(T)                                      \
    template <>                                                      \
    struct std::hash<T> {                                            \
        std::size_t operator()(const T& value) const noexcept;       \
    }
