#include "support/base64.h"

#include <array>

namespace netvane {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<std::int8_t, 256> makeDecodeTable() {
    std::array<std::int8_t, 256> table{};
    for (auto& entry : table) entry = -1;
    for (int i = 0; i < 64; ++i) table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<std::int8_t>(i);
    return table;
}
constexpr auto kDecode = makeDecodeTable();

}  // namespace

std::string base64Encode(std::span<const std::uint8_t> bytes) {
    std::string out;
    out.resize((bytes.size() + 2) / 3 * 4);
    char* o = out.data();
    std::size_t i = 0;
    for (; i + 3 <= bytes.size(); i += 3) {
        const std::uint32_t n = (std::uint32_t{bytes[i]} << 16) | (std::uint32_t{bytes[i + 1]} << 8) | bytes[i + 2];
        *o++ = kAlphabet[n >> 18];
        *o++ = kAlphabet[(n >> 12) & 63];
        *o++ = kAlphabet[(n >> 6) & 63];
        *o++ = kAlphabet[n & 63];
    }
    const std::size_t rest = bytes.size() - i;
    if (rest > 0) {
        std::uint32_t n = std::uint32_t{bytes[i]} << 16;
        if (rest == 2) n |= std::uint32_t{bytes[i + 1]} << 8;
        *o++ = kAlphabet[n >> 18];
        *o++ = kAlphabet[(n >> 12) & 63];
        *o++ = rest == 2 ? kAlphabet[(n >> 6) & 63] : '=';
        *o++ = '=';
    }
    return out;
}

std::optional<std::vector<std::uint8_t>> base64Decode(std::string_view text) {
    std::vector<std::uint8_t> out;
    out.reserve(text.size() / 4 * 3);
    std::uint32_t accumulator = 0;
    int bits = 0;
    std::size_t symbols = 0, padding = 0;
    for (char c : text) {
        if (c == ' ' || c == '\t' || c == '\n' || c == '\r') continue;
        if (c == '=') {
            ++padding;
            continue;
        }
        const std::int8_t v = kDecode[static_cast<unsigned char>(c)];
        if (v < 0 || padding > 0) return std::nullopt;  // foreign character, or data after padding
        ++symbols;
        accumulator = (accumulator << 6) | static_cast<std::uint32_t>(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(static_cast<std::uint8_t>(accumulator >> bits));
        }
    }
    // Symbols plus padding must make whole quanta; a lone symbol is never valid.
    if ((symbols + padding) % 4 != 0 || symbols % 4 == 1 || padding > 2) return std::nullopt;
    if (padding > 0 && (symbols % 4) + padding != 4) return std::nullopt;
    return out;
}

}  // namespace netvane
