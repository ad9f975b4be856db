// UTF-8 / UTF-16 checks and conversions. Strict: unpaired surrogates,
// overlong forms and code points past U+10FFFF are refused.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace netvane {

// `units` UTF-16 code units stored big-endian at `bytes`.
std::optional<std::string> utf16BigEndianToUtf8(const std::uint8_t* bytes, std::size_t units);

// Appends the UTF-16 big-endian form of valid UTF-8 text to `out`; false
// (with `out` unspecified) for invalid UTF-8.
bool appendUtf8AsUtf16BigEndian(std::string_view text, std::vector<std::uint8_t>& out, std::size_t& units);

bool isAscii(std::string_view text);
bool isValidUtf8(std::string_view text);
// Length of the valid UTF-8 sequence starting at text[i], or 0 when none does.
std::size_t utf8SequenceLength(std::string_view text, std::size_t i);

// The text with every invalid UTF-8 sequence replaced by U+FFFD.
std::string repairUtf8(std::string_view text);
// The bytes up to the first zero (or all), repaired: text a C interface
// filled into a buffer.
std::string decodeCString(std::span<const char> buffer);

// Appends the UTF-8 form of one code point (XML character references).
bool appendCodePoint(std::uint32_t codePoint, std::string& out);

}  // namespace netvane
