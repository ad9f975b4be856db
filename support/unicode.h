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

// The text with every maximal ill-formed subpart (the longest start of a
// valid sequence, or one byte that starts none) replaced by one U+FFFD, so
// that a sequence cut short costs one replacement, not one per byte.
std::string repairUtf8(std::string_view text);
// The bytes up to the first zero (or all), repaired: text a C interface
// filled into a buffer.
std::string decodeCString(std::span<const char> buffer);

// Text from outside (names other users chose, paths, error texts) as it may
// reach a terminal: repaired as above, with every control character (C0,
// DEL, C1) written as a visible escape (`\n`, `\x1b`, `\u0085`), so that
// nobody else's text can move a cursor, recolour a screen or forge a line.
std::string terminalText(std::string_view text);

// Appends the UTF-8 form of one code point (XML character references).
bool appendCodePoint(std::uint32_t codePoint, std::string& out);

}  // namespace netvane
