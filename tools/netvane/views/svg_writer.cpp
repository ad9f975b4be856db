#include "views/svg_writer.h"

#include <cmath>
#include <cstdio>
#include <stdexcept>

#include "support/unicode.h"

namespace netvane::views {

SvgWriter::SvgWriter(const Attributes& rootAttributes) {
    out_ = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
    Attributes root{{"xmlns", "http://www.w3.org/2000/svg"}};
    root.insert(root.end(), rootAttributes.begin(), rootAttributes.end());
    open("svg", root);
}

void SvgWriter::indent() { out_.append(2 * open_.size(), ' '); }

void SvgWriter::startTag(std::string_view name, const Attributes& attributes) {
    indent();
    out_ += '<';
    out_ += name;
    for (const auto& [key, value] : attributes) {
        out_ += ' ';
        out_ += key;
        out_ += "=\"";
        out_ += escape(value);
        out_ += '"';
    }
}

void SvgWriter::open(std::string_view name, const Attributes& attributes) {
    startTag(name, attributes);
    out_ += ">\n";
    open_.emplace_back(name);
}

void SvgWriter::close() {
    if (open_.empty()) throw std::logic_error("SvgWriter::close without an open element");
    const std::string name = std::move(open_.back());
    open_.pop_back();
    indent();
    out_ += "</" + name + ">\n";
}

void SvgWriter::element(std::string_view name, const Attributes& attributes) {
    startTag(name, attributes);
    out_ += "/>\n";
}

void SvgWriter::textElement(std::string_view name, const Attributes& attributes, std::string_view text) {
    startTag(name, attributes);
    out_ += '>';
    out_ += escape(text);
    out_ += "</";
    out_ += name;
    out_ += ">\n";
}

std::string SvgWriter::finish() {
    while (!open_.empty()) close();
    return std::move(out_);
}

std::string SvgWriter::number(double value) {
    if (!std::isfinite(value)) return "0";
    char text[512];  // room for every finite double in fixed notation
    std::snprintf(text, sizeof text, "%.2f", value);
    std::string result = text;
    while (result.back() == '0') result.pop_back();
    if (result.back() == '.') result.pop_back();
    if (result == "-0") result = "0";
    return result;
}

std::string SvgWriter::escape(std::string_view text) {
    // Interface names come from files anyone could have written.
    const std::string valid = repairUtf8(text);
    std::string result;
    result.reserve(valid.size());
    for (char c : valid) {
        switch (c) {
            case '&': result += "&amp;"; break;
            case '<': result += "&lt;"; break;
            case '>': result += "&gt;"; break;
            case '"': result += "&quot;"; break;
            case '\'': result += "&apos;"; break;
            default:
                // Control characters other than tab and newline are not
                // allowed in XML 1.0 at all, not even escaped.
                if (static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n') {
                    result += "\xEF\xBF\xBD";
                } else {
                    result += c;
                }
        }
    }
    return result;
}

}  // namespace netvane::views
