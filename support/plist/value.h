// The property-list value: a tree of dictionaries, arrays and scalars.
//
// A plain value type: copies are deep, comparison is memberwise. Dictionaries
// keep their keys in insertion order; a decoded dictionary keeps every entry
// it was given, and lookups see the last entry for a key. Integers cover the
// whole signed 64-bit range plus unsigned values up to 2^64-1; a value that
// fits in int64 is always held as int64 so equal numbers compare equal.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "support/date.h"

namespace netvane::plist {

class Value;

using Data = std::vector<std::uint8_t>;

// An object reference of a keyed archive: a value kind of its own, distinct
// from every integer.
struct UID {
    std::uint64_t value = 0;

    bool operator==(const UID&) const = default;
};
using Array = std::vector<Value>;

class Dictionary {
public:
    using Entry = std::pair<std::string, Value>;

    Dictionary() = default;
    Dictionary(std::initializer_list<Entry> entries);

    // Replaces the value of an existing key in place, else appends.
    void set(std::string key, Value value);
    // Appends without looking for an existing key (decoders, bulk builders).
    void append(std::string key, Value value);
    // Appends an entry with an empty key and a default value, to fill in place.
    Entry& appendEmpty();
    const Value* find(std::string_view key) const;
    Value* find(std::string_view key);

    using const_iterator = std::vector<Entry>::const_iterator;
    std::size_t size() const;
    bool empty() const;
    void reserve(std::size_t n);
    const_iterator begin() const;
    const_iterator end() const;

    bool operator==(const Dictionary& other) const;

private:
    std::vector<Entry> entries_;
};

class Value {
public:
    enum class Type { Boolean, Integer, UnsignedInteger, Real, Date, Data, String, Array, Dictionary, UID };

    Value() : storage_(false) {}
    Value(bool b) : storage_(b) {}
    Value(int i) : storage_(static_cast<std::int64_t>(i)) {}
    Value(unsigned i) : storage_(static_cast<std::int64_t>(i)) {}
    Value(long i) : storage_(static_cast<std::int64_t>(i)) {}
    Value(long long i) : storage_(static_cast<std::int64_t>(i)) {}
    Value(unsigned long i) : Value(static_cast<unsigned long long>(i)) {}
    Value(unsigned long long i);
    Value(double d) : storage_(d) {}
    Value(netvane::Date d) : storage_(d) {}
    Value(plist::Data d) : storage_(std::move(d)) {}
    Value(std::string s) : storage_(std::move(s)) {}
    Value(std::string_view s) : storage_(std::string(s)) {}
    Value(const char* s) : storage_(std::string(s)) {}
    Value(plist::Array a) : storage_(std::move(a)) {}
    Value(plist::Dictionary d) : storage_(std::move(d)) {}
    Value(plist::UID u) : storage_(u) {}

    Type type() const { return static_cast<Type>(storage_.index()); }

    template <class T>
    const T* get() const { return std::get_if<T>(&storage_); }
    template <class T>
    T* get() { return std::get_if<T>(&storage_); }

    const std::string* string() const { return get<std::string>(); }
    const plist::Data* data() const { return get<plist::Data>(); }
    const plist::Array* array() const { return get<plist::Array>(); }
    const plist::Dictionary* dictionary() const { return get<plist::Dictionary>(); }
    const plist::UID* uid() const { return get<plist::UID>(); }
    std::optional<bool> boolean() const;
    std::optional<double> real() const;
    std::optional<netvane::Date> date() const;
    // The integer if it fits the requested type; nullopt for non-integers too.
    std::optional<std::int64_t> int64() const;
    std::optional<std::uint64_t> uint64() const;

    // Replaces the content in place, constructing a T from args.
    template <class T, class... Args>
    T& emplace(Args&&... args) {
        return storage_.template emplace<T>(std::forward<Args>(args)...);
    }

    // Shorthand for dictionary()->find(key); null when this is no dictionary.
    const Value* find(std::string_view key) const;

    bool operator==(const Value&) const = default;

private:
    // Alternative order matches Type.
    std::variant<bool, std::int64_t, std::uint64_t, double, netvane::Date, plist::Data, std::string, plist::Array,
                 plist::Dictionary, plist::UID>
        storage_;
};

// Defined here, where Value is complete.
inline std::size_t Dictionary::size() const { return entries_.size(); }
inline bool Dictionary::empty() const { return entries_.empty(); }
inline void Dictionary::reserve(std::size_t n) { entries_.reserve(n); }
inline Dictionary::const_iterator Dictionary::begin() const { return entries_.begin(); }
inline Dictionary::const_iterator Dictionary::end() const { return entries_.end(); }

}  // namespace netvane::plist
