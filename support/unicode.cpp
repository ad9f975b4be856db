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

std::string repairUtf8(std::string_view text) {
    constexpr std::string_view kReplacement = "\xEF\xBF\xBD";
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i]);
        if (lead < 0x80) {
            out.push_back(static_cast<char>(lead));
            ++i;
            continue;
        }
        // The well-formed sequences by lead byte: their length, and the range
        // of the second byte, which alone rules out overlong forms,
        // surrogates and code points past U+10FFFF; later bytes are 80..BF.
        std::size_t length = 0;
        unsigned char low = 0x80, high = 0xBF;
        if (lead >= 0xC2 && lead <= 0xDF) {
            length = 2;
        } else if (lead >= 0xE0 && lead <= 0xEF) {
            length = 3;
            if (lead == 0xE0) low = 0xA0;
            if (lead == 0xED) high = 0x9F;
        } else if (lead >= 0xF0 && lead <= 0xF4) {
            length = 4;
            if (lead == 0xF0) low = 0x90;
            if (lead == 0xF4) high = 0x8F;
        }
        std::size_t valid = length == 0 ? 0 : 1;
        while (valid > 0 && valid < length && i + valid < text.size()) {
            const auto byte = static_cast<unsigned char>(text[i + valid]);
            if (byte < low || byte > high) break;
            low = 0x80, high = 0xBF;
            ++valid;
        }
        if (valid == length && length != 0) {
            out.append(text.substr(i, length));
            i += length;
        } else {
            out.append(kReplacement);
            i += valid == 0 ? 1 : valid;
        }
    }
    return out;
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

std::string terminalText(std::string_view text) {
    const std::string repaired = repairUtf8(text);
    std::string out;
    out.reserve(repaired.size());
    constexpr char kHex[] = "0123456789abcdef";
    for (std::size_t i = 0; i < repaired.size(); ++i) {
        const auto byte = static_cast<unsigned char>(repaired[i]);
        // After repair, C1 controls (U+0080..U+009F) are exactly C2 80..C2 9F.
        const bool c1 = byte == 0xC2 && i + 1 < repaired.size() && static_cast<unsigned char>(repaired[i + 1]) < 0xA0;
        if (byte >= 0x20 && byte != 0x7F && !c1) {
            out.push_back(static_cast<char>(byte));
            continue;
        }
        switch (byte) {
            case '\n': out += "\\n"; continue;
            case '\r': out += "\\r"; continue;
            case '\t': out += "\\t"; continue;
            default: break;
        }
        const auto value = c1 ? static_cast<unsigned char>(repaired[++i]) : byte;
        out += c1 ? "\\u00" : "\\x";
        out.push_back(kHex[value >> 4]);
        out.push_back(kHex[value & 0xF]);
    }
    return out;
}

std::string decodeCString(std::span<const char> buffer) {
    auto end = std::find(buffer.begin(), buffer.end(), '\0');
    return repairUtf8(std::string_view(buffer.data(), static_cast<std::size_t>(end - buffer.begin())));
}

}  // namespace netvane
