// A strict JSON reader for response bodies: UTF-8 text whose top level is an
// object or an array, as the standard grammar defines it. Keeps what address
// extraction looks at (object members and strings); other values are checked
// and dropped. Pure and safe on any bytes; nesting is bounded.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace netvane::PublicIPService {

struct JSONValue {
    enum class Kind { null, boolean, number, string, array, object };

    Kind kind = Kind::null;
    std::string string;             // Kind::string
    std::vector<std::string> keys;  // Kind::object, in document order
    std::vector<JSONValue> values;  // Kind::object, parallel to keys

    // The member under `key`; the last one when a key repeats.
    const JSONValue* member(std::string_view key) const;
};

// IMPORTANT: bounds the parser's recursion on hostile input.
inline constexpr int kMaxJSONDepth = 512;

std::optional<JSONValue> parseJSON(std::span<const std::uint8_t> text);

}  // namespace netvane::PublicIPService
