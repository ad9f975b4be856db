// XML property-list encoder: tab-indented, one element per line, data as one
// Base64 line. Dates keep whole seconds only, as the XML form does.
#include <charconv>
#include <cmath>

#include "support/base64.h"
#include "support/plist/plist.h"
#include "support/unicode.h"

namespace netvane::plist {
namespace {

constexpr std::string_view kPrologue =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";

Error unencodable(std::string what) { return Error{kPlistErrorDomain, 2, "cannot encode XML property list: " + what}; }

class XmlWriter {
public:
    Result<std::string> run(const Value& root) {
        out_.append(kPrologue);
        if (auto written = write(root, 0); !written.ok()) return written.error();
        out_.append("</plist>\n");
        return std::move(out_);
    }

private:
    void indent(std::size_t depth) { out_.append(depth, '\t'); }

    void element(std::size_t depth, std::string_view name, std::string_view text) {
        indent(depth);
        out_.append("<").append(name).append(">").append(text).append("</").append(name).append(">\n");
    }

    // XML 1.0 cannot carry most control characters at all, even as references.
    // DEL and the C1 controls it can, and they go out as references so that
    // a document shown on a terminal cannot drive it.
    Status appendEscaped(std::string_view text) {
        if (!isValidUtf8(text)) return unencodable("string is not valid UTF-8");
        for (std::size_t i = 0; i < text.size(); ++i) {
            const char c = text[i];
            const auto byte = static_cast<unsigned char>(c);
            if (byte == 0x7f || (byte == 0xc2 && static_cast<unsigned char>(text[i + 1]) < 0xa0)) {
                const unsigned codePoint = byte == 0x7f ? byte : static_cast<unsigned char>(text[++i]);
                out_.append("&#").append(std::to_string(codePoint)).append(";");
                continue;
            }
            switch (c) {
            case '&': out_.append("&amp;"); break;
            case '<': out_.append("&lt;"); break;
            case '>': out_.append("&gt;"); break;
            case '\r': out_.append("&#13;"); break;
            default:
                if (byte < 0x20 && c != '\t' && c != '\n') return unencodable("control character in string");
                out_.push_back(c);
            }
        }
        return {};
    }

    Status textElement(std::size_t depth, std::string_view name, std::string_view text) {
        indent(depth);
        out_.append("<").append(name).append(">");
        if (auto escaped = appendEscaped(text); !escaped.ok()) return escaped;
        out_.append("</").append(name).append(">\n");
        return {};
    }

    Status write(const Value& value, std::size_t depth) {
        if (depth > kMaxDepth) return unencodable("nesting too deep");
        char number[64];
        switch (value.type()) {
        case Value::Type::Boolean:
            indent(depth);
            out_.append(*value.boolean() ? "<true/>\n" : "<false/>\n");
            return {};
        case Value::Type::Integer: {
            auto end = std::to_chars(number, number + sizeof number, *value.int64()).ptr;
            element(depth, "integer", std::string_view(number, end - number));
            return {};
        }
        case Value::Type::UnsignedInteger: {
            auto end = std::to_chars(number, number + sizeof number, *value.get<std::uint64_t>()).ptr;
            element(depth, "integer", std::string_view(number, end - number));
            return {};
        }
        case Value::Type::Real: {
            const double d = *value.real();
            if (std::isnan(d)) {
                element(depth, "real", "nan");
            } else if (std::isinf(d)) {
                element(depth, "real", d > 0 ? "inf" : "-inf");
            } else {
                auto end = std::to_chars(number, number + sizeof number, d).ptr;
                element(depth, "real", std::string_view(number, end - number));
            }
            return {};
        }
        case Value::Type::Date: {
            const double seconds = value.date()->secondsSinceReference;
            if (!std::isfinite(seconds)) return unencodable("date is not finite");
            element(depth, "date", formatISO8601(*value.date()));
            return {};
        }
        case Value::Type::Data: element(depth, "data", base64Encode(*value.data())); return {};
        case Value::Type::UID: {
            indent(depth);
            out_.append("<dict>\n");
            element(depth + 1, "key", "CF$UID");
            auto end = std::to_chars(number, number + sizeof number, value.uid()->value).ptr;
            element(depth + 1, "integer", std::string_view(number, end - number));
            indent(depth);
            out_.append("</dict>\n");
            return {};
        }
        case Value::Type::String: return textElement(depth, "string", *value.string());
        case Value::Type::Array: {
            const Array& array = *value.array();
            indent(depth);
            if (array.empty()) {
                out_.append("<array/>\n");
                return {};
            }
            out_.append("<array>\n");
            for (const Value& child : array) {
                if (auto written = write(child, depth + 1); !written.ok()) return written;
            }
            indent(depth);
            out_.append("</array>\n");
            return {};
        }
        case Value::Type::Dictionary: {
            const Dictionary& dictionary = *value.dictionary();
            indent(depth);
            if (dictionary.empty()) {
                out_.append("<dict/>\n");
                return {};
            }
            out_.append("<dict>\n");
            for (const auto& [key, child] : dictionary) {
                if (auto written = textElement(depth + 1, "key", key); !written.ok()) return written;
                if (auto written = write(child, depth + 1); !written.ok()) return written;
            }
            indent(depth);
            out_.append("</dict>\n");
            return {};
        }
        }
        return {};
    }

    std::string out_;
};

}  // namespace

Result<std::string> encodeXml(const Value& value) { return XmlWriter().run(value); }

}  // namespace netvane::plist
