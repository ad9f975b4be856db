#include "support/unicode.h"

#include <algorithm>
#include <cstring>

namespace netvane {
namespace {

// Decodes one code point from valid-or-not UTF-8; returns bytes consumed, 0 on error.
std::size_t decodeUtf8(std::string_view text, std::size_t i, std::uint32_t& cp) {
    const auto b0 = static_cast<unsigned char>(text[i]);
    if (b0 < 0x80) {
        cp = b0;
        return 1;
    }
    std::size_t length;
    std::uint32_t min;
    if ((b0 & 0xE0) == 0xC0) {
        length = 2, cp = b0 & 0x1F, min = 0x80;
    } else if ((b0 & 0xF0) == 0xE0) {
        length = 3, cp = b0 & 0x0F, min = 0x800;
    } else if ((b0 & 0xF8) == 0xF0) {
        length = 4, cp = b0 & 0x07, min = 0x10000;
    } else {
        return 0;
    }
    if (text.size() - i < length) return 0;
    for (std::size_t k = 1; k < length; ++k) {
        const auto b = static_cast<unsigned char>(text[i + k]);
        if ((b & 0xC0) != 0x80) return 0;
        cp = (cp << 6) | (b & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
    return length;
}

}  // namespace

bool appendCodePoint(std::uint32_t cp, std::string& out) {
    if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
    return true;
}

std::optional<std::string> utf16BigEndianToUtf8(const std::uint8_t* bytes, std::size_t units) {
    std::string out;
    out.reserve(units);
    for (std::size_t i = 0; i < units; ++i) {
        std::uint32_t unit = (std::uint32_t{bytes[2 * i]} << 8) | bytes[2 * i + 1];
        if (unit >= 0xD800 && unit <= 0xDBFF) {
            if (i + 1 >= units) return std::nullopt;
            const std::uint32_t low = (std::uint32_t{bytes[2 * i + 2]} << 8) | bytes[2 * i + 3];
            if (low < 0xDC00 || low > 0xDFFF) return std::nullopt;
            unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
            ++i;
        } else if (unit >= 0xDC00 && unit <= 0xDFFF) {
            return std::nullopt;
        }
        appendCodePoint(unit, out);
    }
    return out;
}

bool appendUtf8AsUtf16BigEndian(std::string_view text, std::vector<std::uint8_t>& out, std::size_t& units) {
    units = 0;
    auto put = [&](std::uint32_t unit) {
        out.push_back(static_cast<std::uint8_t>(unit >> 8));
        out.push_back(static_cast<std::uint8_t>(unit & 0xFF));
        ++units;
    };
    for (std::size_t i = 0; i < text.size();) {
        std::uint32_t cp;
        const std::size_t used = decodeUtf8(text, i, cp);
        if (used == 0) return false;
        i += used;
        if (cp >= 0x10000) {
            cp -= 0x10000;
            put(0xD800 + (cp >> 10));
            put(0xDC00 + (cp & 0x3FF));
        } else {
            put(cp);
        }
    }
    return true;
}

bool isAscii(std::string_view text) {
    // Eight bytes at a time: any high bit set means a non-ASCII byte.
    std::size_t i = 0;
    for (; i + 8 <= text.size(); i += 8) {
        std::uint64_t word;
        std::memcpy(&word, text.data() + i, 8);
        if (word & 0x8080808080808080ull) return false;
    }
    for (; i < text.size(); ++i) {
        if (static_cast<unsigned char>(text[i]) >= 0x80) return false;
    }
    return true;
}

std::size_t utf8SequenceLength(std::string_view text, std::size_t i) {
    std::uint32_t cp;
    return decodeUtf8(text, i, cp);
}

bool isValidUtf8(std::string_view text) {
    for (std::size_t i = 0; i < text.size();) {
        std::uint32_t cp;
        const std::size_t used = decodeUtf8(text, i, cp);
        if (used == 0) return false;
        i += used;
    }
    return true;
}

std::string decodeCString(std::span<const char> buffer) {
    auto end = std::find(buffer.begin(), buffer.end(), '\0');
    return repairUtf8(std::string_view(buffer.data(), static_cast<std::size_t>(end - buffer.begin())));
}

std::string repairUtf8(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t length = utf8SequenceLength(text, i);
        if (length == 0) {
            out += "\xEF\xBF\xBD";
            ++i;
        } else {
            out.append(text.substr(i, length));
            i += length;
        }
    }
    return out;
}

}  // namespace netvane
