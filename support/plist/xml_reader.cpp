// XML property-list decoder for the subset the format uses: a prolog of
// declarations, comments and a document type, then one value, optionally
// wrapped in <plist>. Entities (the five named ones and character references)
// and CDATA sections are decoded; anything else is refused.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <locale>
#include <optional>
#include <sstream>

#include "support/base64.h"
#include "support/plist/plist.h"
#include "support/unicode.h"

namespace netvane::plist {
namespace {

Error malformed(std::string what) { return Error{kPlistErrorDomain, 3, "malformed XML property list: " + what}; }

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

std::string_view trim(std::string_view text) {
    while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
    while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
    return text;
}

bool equalsIgnoringCase(std::string_view text, std::string_view lowerCase) {
    return text.size() == lowerCase.size() &&
           std::equal(text.begin(), text.end(), lowerCase.begin(),
                      [](char a, char b) { return (a >= 'A' && a <= 'Z' ? a - 'A' + 'a' : a) == b; });
}

// A decimal real with '.' as its point whatever the process's locale, or an
// infinity or NaN as writers spell them. Not every standard library offers
// std::from_chars for floating point, so the text is checked here and
// converted by a stream in the classic locale, which rounds correctly. A
// magnitude too large for a double is refused; one too small becomes the
// nearest double (a subnormal or zero), whichever library does the work.
std::optional<double> parseDecimal(std::string_view text) {
    const bool hasSign = !text.empty() && (text.front() == '-' || text.front() == '+');
    const bool negative = hasSign && text.front() == '-';
    const std::string_view body = text.substr(hasSign ? 1 : 0);
    if (equalsIgnoringCase(body, "inf") || equalsIgnoringCase(body, "infinity")) {
        return negative ? -std::numeric_limits<double>::infinity() : std::numeric_limits<double>::infinity();
    }
    if (equalsIgnoringCase(body, "nan")) return std::numeric_limits<double>::quiet_NaN();
    auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    std::size_t i = 0;
    std::size_t mantissaDigits = 0;
    for (; i < body.size() && isDigit(body[i]); ++i) ++mantissaDigits;
    if (i < body.size() && body[i] == '.') {
        for (++i; i < body.size() && isDigit(body[i]); ++i) ++mantissaDigits;
    }
    if (mantissaDigits == 0) return std::nullopt;
    if (i < body.size() && (body[i] == 'e' || body[i] == 'E')) {
        if (++i < body.size() && (body[i] == '+' || body[i] == '-')) ++i;
        const std::size_t exponentStart = i;
        while (i < body.size() && isDigit(body[i])) ++i;
        if (i == exponentStart) return std::nullopt;
    }
    if (i != body.size()) return std::nullopt;
    std::istringstream in{std::string(text)};
    in.imbue(std::locale::classic());
    double value = 0;
    in >> value;
    // The text is well formed, so a failure means out of range. Libraries
    // differ on underflow (some flag it, keeping the value); overflow leaves
    // the largest double or an infinity behind.
    if (in.fail() && !(std::isfinite(value) && std::fabs(value) < 1)) return std::nullopt;
    return value;
}

struct Tag {
    enum Kind { Open, Close, Empty } kind;
    std::string_view name;
};

class XmlReader {
public:
    explicit XmlReader(std::string_view text) : in_(text) {}

    Result<Value> run() {
        if (in_.substr(0, 3) == "\xEF\xBB\xBF") pos_ = 3;
        if (auto skipped = skipMisc(true); !skipped.ok()) return skipped.error();
        auto tag = readTag();
        if (!tag) return tag.error();
        const bool wrapped = tag->name == "plist";
        if (wrapped) {
            if (tag->kind != Tag::Open) return malformed("empty plist element");
            if (auto skipped = skipMisc(false); !skipped.ok()) return skipped.error();
            tag = readTag();
            if (!tag) return tag.error();
        }
        auto value = parseValue(*tag, 0);
        if (!value) return value.error();
        if (wrapped) {
            if (auto skipped = skipMisc(false); !skipped.ok()) return skipped.error();
            auto close = readTag();
            if (!close) return close.error();
            if (close->kind != Tag::Close || close->name != "plist") return malformed("expected </plist>");
        }
        if (auto skipped = skipMisc(false); !skipped.ok()) return skipped.error();
        if (pos_ != in_.size()) return malformed("content after the root value");
        return value;
    }

private:
    bool startsWith(std::string_view prefix) const { return in_.substr(pos_, prefix.size()) == prefix; }

    // Skips whitespace and comments; in the prolog also declarations and the
    // document type.
    Status skipMisc(bool prolog) {
        for (;;) {
            while (pos_ < in_.size() && isSpace(in_[pos_])) ++pos_;
            if (startsWith("<!--")) {
                const std::size_t end = in_.find("-->", pos_ + 4);
                if (end == std::string_view::npos) return malformed("unterminated comment");
                pos_ = end + 3;
            } else if (prolog && startsWith("<?")) {
                const std::size_t end = in_.find("?>", pos_ + 2);
                if (end == std::string_view::npos) return malformed("unterminated declaration");
                pos_ = end + 2;
            } else if (prolog && startsWith("<!DOCTYPE")) {
                // An internal subset may hold '>' inside brackets.
                int brackets = 0;
                std::size_t i = pos_ + 9;
                for (; i < in_.size(); ++i) {
                    if (in_[i] == '[') ++brackets;
                    else if (in_[i] == ']') --brackets;
                    else if (in_[i] == '>' && brackets <= 0) break;
                }
                if (i >= in_.size()) return malformed("unterminated document type");
                pos_ = i + 1;
            } else {
                return {};
            }
        }
    }

    Result<Tag> readTag() {
        if (pos_ >= in_.size() || in_[pos_] != '<') return malformed("expected an element");
        const std::size_t end = in_.find('>', pos_);
        if (end == std::string_view::npos) return malformed("unterminated tag");
        std::string_view inner = in_.substr(pos_ + 1, end - pos_ - 1);
        pos_ = end + 1;
        Tag tag{Tag::Open, {}};
        if (!inner.empty() && inner.front() == '/') {
            tag.kind = Tag::Close;
            inner.remove_prefix(1);
        } else if (!inner.empty() && inner.back() == '/') {
            tag.kind = Tag::Empty;
            inner.remove_suffix(1);
        }
        std::size_t nameEnd = 0;
        while (nameEnd < inner.size() && !isSpace(inner[nameEnd])) ++nameEnd;
        tag.name = inner.substr(0, nameEnd);
        if (tag.name.empty()) return malformed("element without a name");
        if (tag.kind == Tag::Close && !trim(inner.substr(nameEnd)).empty()) return malformed("attributes on a closing tag");
        return tag;
    }

    // Reads character data up to </name>, decoding entities and CDATA.
    Result<std::string> readText(std::string_view name) {
        std::string text;
        for (;;) {
            std::size_t next = pos_;
            while (next < in_.size() && in_[next] != '<' && in_[next] != '&') ++next;
            if (next == in_.size()) next = std::string_view::npos;
            if (next == std::string_view::npos) return malformed("unterminated element");
            appendLiteral(text, in_.substr(pos_, next - pos_));
            pos_ = next;
            if (in_[pos_] == '&') {
                if (auto decoded = readEntity(text); !decoded.ok()) return decoded.error();
            } else if (startsWith("<![CDATA[")) {
                const std::size_t end = in_.find("]]>", pos_ + 9);
                if (end == std::string_view::npos) return malformed("unterminated CDATA section");
                text.append(in_.substr(pos_ + 9, end - pos_ - 9));
                pos_ = end + 3;
            } else if (startsWith("<!--")) {
                const std::size_t end = in_.find("-->", pos_ + 4);
                if (end == std::string_view::npos) return malformed("unterminated comment");
                pos_ = end + 3;
            } else {
                auto tag = readTag();
                if (!tag) return tag.error();
                if (tag->kind != Tag::Close || tag->name != name) return malformed("unexpected element inside text");
                return text;
            }
        }
    }

    // XML folds every literal line break to a line feed; a character
    // reference (&#13;) is how a carriage return survives.
    static void appendLiteral(std::string& text, std::string_view literal) {
        for (;;) {
            const std::size_t cr = literal.find('\r');
            text.append(literal.substr(0, cr));
            if (cr == std::string_view::npos) return;
            text.push_back('\n');
            literal.remove_prefix(cr + (cr + 1 < literal.size() && literal[cr + 1] == '\n' ? 2 : 1));
        }
    }

    Status readEntity(std::string& text) {
        const std::size_t end = in_.find(';', pos_);
        if (end == std::string_view::npos || end - pos_ > 12) return malformed("bad entity");
        const std::string_view entity = in_.substr(pos_ + 1, end - pos_ - 1);
        pos_ = end + 1;
        if (entity == "lt") text.push_back('<');
        else if (entity == "gt") text.push_back('>');
        else if (entity == "amp") text.push_back('&');
        else if (entity == "quot") text.push_back('"');
        else if (entity == "apos") text.push_back('\'');
        else if (entity.size() > 1 && entity[0] == '#') {
            const bool hex = entity[1] == 'x' || entity[1] == 'X';
            const std::string_view digits = entity.substr(hex ? 2 : 1);
            std::uint32_t codePoint = 0;
            auto [ptr, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), codePoint, hex ? 16 : 10);
            if (digits.empty() || ec != std::errc() || ptr != digits.data() + digits.size() || codePoint == 0 ||
                !appendCodePoint(codePoint, text)) {
                return malformed("bad character reference");
            }
        } else {
            return malformed("unknown entity");
        }
        return {};
    }

    Result<Value> parseValue(const Tag& tag, std::size_t depth) {
        if (depth > kMaxDepth) return malformed("nesting too deep");
        if (tag.kind == Tag::Close) return malformed("unexpected closing tag");
        const std::string_view name = tag.name;
        const bool empty = tag.kind == Tag::Empty;
        if (name == "true" || name == "false") {
            if (!empty) {
                auto text = readText(name);
                if (!text) return text.error();
                if (!trim(*text).empty()) return malformed("text inside a boolean");
            }
            return Value(name == "true");
        }
        if (name == "dict") return empty ? Value(Dictionary{}) : parseDictionary(depth);
        if (name == "array") return empty ? Value(Array{}) : parseArray(depth);

        std::string text;
        if (!empty) {
            auto read = readText(name);
            if (!read) return read.error();
            text = std::move(*read);
        }
        if (name == "string") {
            if (!isValidUtf8(text)) return malformed("string is not valid UTF-8");
            return Value(std::move(text));
        }
        if (name == "integer") return parseInteger(trim(text));
        if (name == "real") return parseReal(trim(text));
        if (name == "date") {
            auto date = parseISO8601(trim(text));
            if (!date) return malformed("bad date");
            return Value(*date);
        }
        if (name == "data") {
            auto data = base64Decode(text);
            if (!data) return malformed("bad Base64 data");
            return Value(std::move(*data));
        }
        return malformed("unknown element <" + std::string(name) + ">");
    }

    Result<Value> parseArray(std::size_t depth) {
        Array array;
        for (;;) {
            if (auto skipped = skipMisc(false); !skipped.ok()) return skipped.error();
            auto tag = readTag();
            if (!tag) return tag.error();
            if (tag->kind == Tag::Close) {
                if (tag->name != "array") return malformed("mismatched </" + std::string(tag->name) + ">");
                return Value(std::move(array));
            }
            auto child = parseValue(*tag, depth + 1);
            if (!child) return child.error();
            array.push_back(std::move(*child));
        }
    }

    Result<Value> parseDictionary(std::size_t depth) {
        Dictionary dictionary;
        for (;;) {
            if (auto skipped = skipMisc(false); !skipped.ok()) return skipped.error();
            auto tag = readTag();
            if (!tag) return tag.error();
            if (tag->kind == Tag::Close) {
                if (tag->name != "dict") return malformed("mismatched </" + std::string(tag->name) + ">");
                return Value(std::move(dictionary));
            }
            if (tag->name != "key") return malformed("dictionary entry without a key");
            std::string key;
            if (tag->kind == Tag::Open) {
                auto text = readText("key");
                if (!text) return text.error();
                key = std::move(*text);
            }
            if (!isValidUtf8(key)) return malformed("key is not valid UTF-8");
            if (auto skipped = skipMisc(false); !skipped.ok()) return skipped.error();
            auto valueTag = readTag();
            if (!valueTag) return valueTag.error();
            if (valueTag->name == "key") return malformed("key without a value");
            auto value = parseValue(*valueTag, depth + 1);
            if (!value) return value.error();
            dictionary.append(std::move(key), std::move(*value));
        }
    }

    static Result<Value> parseInteger(std::string_view text) {
        bool negative = false;
        if (!text.empty() && (text.front() == '-' || text.front() == '+')) {
            negative = text.front() == '-';
            text.remove_prefix(1);
        }
        int base = 10;
        if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
            base = 16;
            text.remove_prefix(2);
        }
        std::uint64_t magnitude = 0;
        auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
        if (text.empty() || ec != std::errc() || ptr != text.data() + text.size()) return malformed("bad integer");
        if (!negative) return Value(static_cast<unsigned long long>(magnitude));
        constexpr std::uint64_t limit = std::uint64_t{1} << 63;
        if (magnitude > limit) return malformed("integer out of range");
        return Value(static_cast<std::int64_t>(0 - magnitude));
    }

    static Result<Value> parseReal(std::string_view text) {
        std::optional<double> d = parseDecimal(text);
        if (!d) return malformed("bad real");
        return Value(*d);
    }

    std::string_view in_;
    std::size_t pos_ = 0;
};

}  // namespace

Result<Value> decodeXml(std::span<const std::uint8_t> bytes) {
    return XmlReader(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size())).run();
}

}  // namespace netvane::plist
