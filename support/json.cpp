#include "support/json.h"

#include <array>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <utility>

#include "support/base64.h"
#include "support/unicode.h"

namespace netvane {

namespace {

// Which bytes a JSON string cannot carry as they are, and those that are
// escaped anyway because a terminal would act on them: DEL, and 0xC2, which
// leads the two-byte form of the C1 controls (U+0080 to U+009F).
constexpr std::array<bool, 256> kNeedsEscape = [] {
    std::array<bool, 256> table{};
    for (int c = 0; c < 0x20; ++c) table[c] = true;
    table['"'] = table['\\'] = table[0x7f] = table[0xc2] = true;
    return table;
}();

void appendValidJsonQuoted(std::string& out, std::string_view text) {
    out.push_back('"');
    std::size_t plain = 0;  // start of the run of characters that need no escape
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (!kNeedsEscape[static_cast<unsigned char>(c)]) continue;
        // Valid UTF-8 here, so 0xC2 has a continuation byte after it.
        const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
        if (static_cast<unsigned char>(c) == 0xc2 && next > 0x9f) continue;
        out.append(text.substr(plain, i - plain));
        plain = i + 1;
        if (static_cast<unsigned char>(c) == 0xc2) {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(next));
            out.append(escape);
            plain = ++i + 1;
            continue;
        }
        switch (c) {
        case '"': out.append("\\\""); break;
        case '\\': out.append("\\\\"); break;
        case '\n': out.append("\\n"); break;
        case '\r': out.append("\\r"); break;
        case '\t': out.append("\\t"); break;
        default: {
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(static_cast<unsigned char>(c)));
            out.append(escape);
        }
        }
    }
    out.append(text.substr(plain));
    out.push_back('"');
}

// A JSON string literal, with its quotes. JSON text is UTF-8 and nothing
// else, so text that is not (a name from the kernel or from a file) is
// repaired first: each ill-formed piece becomes U+FFFD.
void appendJsonQuoted(std::string& out, std::string_view text) {
    if (isAscii(text) || isValidUtf8(text)) {
        appendValidJsonQuoted(out, text);
    } else {
        appendValidJsonQuoted(out, repairUtf8(text));
    }
}

}  // namespace

JsonWriter::JsonWriter(bool pretty) : pretty_(pretty) {}

void JsonWriter::newline() {
    if (!pretty_) return;
    // A line break and the indentation in one append, for the usual depths.
    static constexpr std::string_view kBreaks = "\n                                ";
    const std::size_t width = 1 + depth_ * 2;
    if (width <= kBreaks.size()) {
        out_.append(kBreaks.substr(0, width));
    } else {
        out_.push_back('\n');
        out_.append(depth_ * 2, ' ');
    }
}

void JsonWriter::element() {
    if (afterKey_) {
        afterKey_ = false;
        return;
    }
    if (depth_ > 0) {
        if (!first_) out_.push_back(',');
        newline();
    }
    first_ = false;
}

void JsonWriter::open(char bracket) {
    element();
    out_.push_back(bracket);
    ++depth_;
    first_ = true;
}

void JsonWriter::close(char bracket) {
    --depth_;
    if (!first_) newline();
    out_.push_back(bracket);
    first_ = false;
}

void JsonWriter::key(std::string_view name) {
    element();
    appendJsonQuoted(out_, name);
    out_.append(pretty_ ? ": " : ":");
    afterKey_ = true;
}

void JsonWriter::string(std::string_view text) {
    element();
    appendJsonQuoted(out_, text);
}

void JsonWriter::boolean(bool value) {
    element();
    out_.append(value ? "true" : "false");
}

template <class Number>
void JsonWriter::number(Number n) {
    element();
    char buffer[64];
    auto end = std::to_chars(buffer, buffer + sizeof buffer, n).ptr;
    out_.append(buffer, end);
}

void JsonWriter::number(std::int64_t n) { number<std::int64_t>(n); }
void JsonWriter::number(std::uint64_t n) { number<std::uint64_t>(n); }

void JsonWriter::number(double n) {
    if (std::isfinite(n)) {
        number<double>(n);
    } else {
        element();
        out_.append("null");
    }
}

void JsonWriter::value(const plist::Value& value) {
    using Type = plist::Value::Type;
    switch (value.type()) {
    case Type::Boolean: boolean(*value.boolean()); break;
    case Type::Integer: number(*value.int64()); break;
    case Type::UnsignedInteger: number(*value.uint64()); break;
    case Type::Real: number(*value.real()); break;
    case Type::Date: string(formatISO8601Fraction(*value.date())); break;
    case Type::Data: string(base64Encode(*value.data())); break;
    case Type::String: string(*value.string()); break;
    case Type::Array:
        beginArray();
        for (const plist::Value& element : *value.array()) this->value(element);
        endArray();
        break;
    case Type::UID:
        // As the XML form has it.
        beginObject();
        key("CF$UID");
        number(value.uid()->value);
        endObject();
        break;
    case Type::Dictionary:
        beginObject();
        for (const auto& [name, child] : *value.dictionary()) {
            key(name);
            this->value(child);
        }
        endObject();
        break;
    }
}

bool JsonWriter::flushTo(std::FILE* stream) {
    const bool written = std::fwrite(out_.data(), 1, out_.size(), stream) == out_.size();
    out_.clear();
    return written;
}

std::string JsonWriter::takePiece() { return std::exchange(out_, std::string()); }

std::string JsonWriter::take() {
    if (pretty_) out_.push_back('\n');
    return std::move(out_);
}

std::string toJSON(const plist::Value& value, bool pretty) {
    JsonWriter writer(pretty);
    writer.value(value);
    return writer.take();
}

}  // namespace netvane
