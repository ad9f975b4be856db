#include "netcore/publicip/json_body.h"

#include "support/unicode.h"

namespace netvane::PublicIPService {
namespace {

class Parser {
public:
    explicit Parser(std::string_view text) : text_(text) {}

    std::optional<JSONValue> document() {
        if (text_.starts_with("\xEF\xBB\xBF")) pos_ = 3;
        skipWhitespace();
        if (pos_ >= text_.size() || (text_[pos_] != '{' && text_[pos_] != '[')) return std::nullopt;
        JSONValue root;
        if (!value(root, 0)) return std::nullopt;
        skipWhitespace();
        if (pos_ != text_.size()) return std::nullopt;
        return root;
    }

private:
    bool value(JSONValue& out, int depth) {
        skipWhitespace();
        if (pos_ >= text_.size()) return false;
        switch (text_[pos_]) {
            case '{':
                out.kind = JSONValue::Kind::object;
                return object(out, depth + 1);
            case '[':
                out.kind = JSONValue::Kind::array;
                return array(depth + 1);
            case '"':
                out.kind = JSONValue::Kind::string;
                return string(out.string);
            case 't':
                out.kind = JSONValue::Kind::boolean;
                return literal("true");
            case 'f':
                out.kind = JSONValue::Kind::boolean;
                return literal("false");
            case 'n':
                out.kind = JSONValue::Kind::null;
                return literal("null");
            default:
                out.kind = JSONValue::Kind::number;
                return number();
        }
    }

    bool object(JSONValue& out, int depth) {
        if (depth > kMaxJSONDepth) return false;
        ++pos_;  // '{'
        skipWhitespace();
        if (consume('}')) return true;
        for (;;) {
            skipWhitespace();
            std::string key;
            if (!peek('"') || !string(key)) return false;
            skipWhitespace();
            if (!consume(':')) return false;
            JSONValue member;
            if (!value(member, depth)) return false;
            out.keys.push_back(std::move(key));
            out.values.push_back(std::move(member));
            skipWhitespace();
            if (consume('}')) return true;
            if (!consume(',')) return false;
        }
    }

    bool array(int depth) {
        if (depth > kMaxJSONDepth) return false;
        ++pos_;  // '['
        skipWhitespace();
        if (consume(']')) return true;
        for (;;) {
            JSONValue element;  // checked, not kept: no lookup reaches into arrays
            if (!value(element, depth)) return false;
            skipWhitespace();
            if (consume(']')) return true;
            if (!consume(',')) return false;
        }
    }

    bool string(std::string& out) {
        ++pos_;  // '"'
        for (;;) {
            if (pos_ >= text_.size()) return false;
            const auto c = static_cast<unsigned char>(text_[pos_++]);
            if (c == '"') return true;
            if (c < 0x20) return false;
            if (c != '\\') {
                out.push_back(static_cast<char>(c));
                continue;
            }
            if (pos_ >= text_.size()) return false;
            switch (text_[pos_++]) {
                case '"': out.push_back('"'); break;
                case '\\': out.push_back('\\'); break;
                case '/': out.push_back('/'); break;
                case 'b': out.push_back('\b'); break;
                case 'f': out.push_back('\f'); break;
                case 'n': out.push_back('\n'); break;
                case 'r': out.push_back('\r'); break;
                case 't': out.push_back('\t'); break;
                case 'u':
                    if (!unicodeEscape(out)) return false;
                    break;
                default:
                    return false;
            }
        }
    }

    // After "\u": four hex digits, a surrogate pair taking two escapes.
    bool unicodeEscape(std::string& out) {
        auto unit = hex4();
        if (!unit) return false;
        std::uint32_t codePoint = *unit;
        if (codePoint >= 0xD800 && codePoint <= 0xDBFF) {
            if (!text_.substr(pos_).starts_with("\\u")) return false;
            pos_ += 2;
            auto low = hex4();
            if (!low || *low < 0xDC00 || *low > 0xDFFF) return false;
            codePoint = 0x10000 + ((codePoint - 0xD800) << 10) + (*low - 0xDC00);
        }
        return appendCodePoint(codePoint, out);  // refuses a lone low surrogate
    }

    std::optional<std::uint32_t> hex4() {
        if (text_.size() - pos_ < 4) return std::nullopt;
        std::uint32_t unit = 0;
        for (int i = 0; i < 4; ++i) {
            const char c = text_[pos_++];
            unit <<= 4;
            if (c >= '0' && c <= '9') unit |= static_cast<std::uint32_t>(c - '0');
            else if (c >= 'a' && c <= 'f') unit |= static_cast<std::uint32_t>(c - 'a' + 10);
            else if (c >= 'A' && c <= 'F') unit |= static_cast<std::uint32_t>(c - 'A' + 10);
            else return std::nullopt;
        }
        return unit;
    }

    bool number() {
        consume('-');
        if (consume('0')) {
            // no leading zeros
        } else if (!digits()) {
            return false;
        }
        if (consume('.') && !digits()) return false;
        if (consume('e') || consume('E')) {
            if (!consume('+')) consume('-');
            if (!digits()) return false;
        }
        return true;
    }

    bool digits() {
        const std::size_t start = pos_;
        while (pos_ < text_.size() && text_[pos_] >= '0' && text_[pos_] <= '9') ++pos_;
        return pos_ > start;
    }

    bool literal(std::string_view word) {
        if (!text_.substr(pos_).starts_with(word)) return false;
        pos_ += word.size();
        return true;
    }

    bool peek(char c) const { return pos_ < text_.size() && text_[pos_] == c; }
    bool consume(char c) {
        if (!peek(c)) return false;
        ++pos_;
        return true;
    }

    void skipWhitespace() {
        while (pos_ < text_.size() &&
               (text_[pos_] == ' ' || text_[pos_] == '\t' || text_[pos_] == '\n' || text_[pos_] == '\r')) {
            ++pos_;
        }
    }

    std::string_view text_;
    std::size_t pos_ = 0;
};

}  // namespace

const JSONValue* JSONValue::member(std::string_view key) const {
    for (std::size_t i = keys.size(); i-- > 0;) {
        if (keys[i] == key) return &values[i];
    }
    return nullptr;
}

std::optional<JSONValue> parseJSON(std::span<const std::uint8_t> bytes) {
    const std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    if (!isValidUtf8(text)) return std::nullopt;
    return Parser(text).document();
}

}  // namespace netvane::PublicIPService
