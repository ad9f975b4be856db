#include "support/json.h"

#include <charconv>
#include <cmath>
#include <cstdio>

#include "support/base64.h"

namespace netvane {
namespace {

class JsonWriter {
public:
    explicit JsonWriter(bool pretty) : pretty_(pretty) {}

    std::string run(const plist::Value& value) {
        write(value, 0);
        if (pretty_) out_.push_back('\n');
        return std::move(out_);
    }

private:
    void newline(std::size_t depth) {
        if (!pretty_) return;
        out_.push_back('\n');
        out_.append(depth * 2, ' ');
    }

    template <class Number>
    void number(Number n) {
        char buffer[64];
        auto end = std::to_chars(buffer, buffer + sizeof buffer, n).ptr;
        out_.append(buffer, end);
    }

    void write(const plist::Value& value, std::size_t depth) {
        using Type = plist::Value::Type;
        switch (value.type()) {
        case Type::Boolean: out_.append(*value.boolean() ? "true" : "false"); break;
        case Type::Integer: number(*value.int64()); break;
        case Type::UnsignedInteger: number(*value.uint64()); break;
        case Type::Real:
            if (std::isfinite(*value.real())) {
                number(*value.real());
            } else {
                out_.append("null");
            }
            break;
        case Type::Date: out_.append(jsonQuote(formatISO8601Fraction(*value.date()))); break;
        case Type::Data: out_.append(jsonQuote(base64Encode(*value.data()))); break;
        case Type::String: out_.append(jsonQuote(*value.string())); break;
        case Type::Array: {
            const auto& array = *value.array();
            out_.push_back('[');
            for (std::size_t i = 0; i < array.size(); ++i) {
                if (i > 0) out_.push_back(',');
                newline(depth + 1);
                write(array[i], depth + 1);
            }
            if (!array.empty()) newline(depth);
            out_.push_back(']');
            break;
        }
        case Type::Dictionary: {
            const auto& dictionary = *value.dictionary();
            out_.push_back('{');
            bool first = true;
            for (const auto& [key, child] : dictionary) {
                if (!first) out_.push_back(',');
                first = false;
                newline(depth + 1);
                out_.append(jsonQuote(key));
                out_.append(pretty_ ? ": " : ":");
                write(child, depth + 1);
            }
            if (!dictionary.empty()) newline(depth);
            out_.push_back('}');
            break;
        }
        }
    }

    bool pretty_;
    std::string out_;
};

}  // namespace

std::string jsonQuote(std::string_view text) {
    std::string out;
    out.reserve(text.size() + 2);
    out.push_back('"');
    for (char c : text) {
        switch (c) {
        case '"': out.append("\\\""); break;
        case '\\': out.append("\\\\"); break;
        case '\n': out.append("\\n"); break;
        case '\r': out.append("\\r"); break;
        case '\t': out.append("\\t"); break;
        default:
            if (static_cast<unsigned char>(c) < 0x20) {
                char escape[8];
                std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
                out.append(escape);
            } else {
                out.push_back(c);
            }
        }
    }
    out.push_back('"');
    return out;
}

std::string toJSON(const plist::Value& value, bool pretty) { return JsonWriter(pretty).run(value); }

}  // namespace netvane
