// A small writer of SVG documents: elements, attributes and text with XML
// escaping, and numbers printed with fixed precision so that one input
// always gives the same bytes. It checks nesting (every open element is
// closed in order) and produces a string; writing it out is the caller's.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace netvane::views {

class SvgWriter {
public:
    using Attributes = std::vector<std::pair<std::string_view, std::string>>;

    // Opens the root <svg> element with the given attributes.
    explicit SvgWriter(const Attributes& rootAttributes);

    void open(std::string_view name, const Attributes& attributes = {});
    void close();  // the innermost open element
    void element(std::string_view name, const Attributes& attributes = {});  // empty element
    // An element holding only text.
    void textElement(std::string_view name, const Attributes& attributes, std::string_view text);
    // Closes every open element and hands back the document.
    std::string finish();

    // Coordinates and other numbers: two decimals at most, no trailing
    // zeros, never "-0", never an exponent.
    static std::string number(double value);
    static std::string escape(std::string_view text);

private:
    void startTag(std::string_view name, const Attributes& attributes);
    void indent();

    std::string out_;
    std::vector<std::string> open_;
};

}  // namespace netvane::views
