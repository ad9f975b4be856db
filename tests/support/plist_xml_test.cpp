#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <optional>
#include <string>

#include "support/plist/plist.h"

namespace netvane::plist {
namespace {

Result<Value> parse(const char* text) {
    return decode(std::span(reinterpret_cast<const std::uint8_t*>(text), std::strlen(text)));
}

TEST(PlistXml, AcceptsTheFormatsOptionalPieces) {
    auto value = parse(
        "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<!DOCTYPE plist [ <!ELEMENT x (y)> ]>\n<!-- a comment -->\n"
        "<plist version=\"1.0\"><dict>\n"
        "  <key>entities</key><string>&lt;&amp;&gt;&quot;&apos;&#65;&#x1F600;</string>\n"
        "  <key>cdata</key><string><![CDATA[<raw & text>]]></string>\n"
        "  <key>empty</key><string/>\n"
        "  <key>hex</key><integer>0x1F</integer>\n"
        "  <key>plus</key><integer>+7</integer>\n"
        "  <key>inf</key><real>-infinity</real>\n"
        "  <key>date</key><date>2001-01-02Z</date>\n"
        "  <key>data</key><data>\n  QUJD\n  REVG\n</data>\n"
        "  <key>crlf</key><string>a\r\nb</string>\n"
        "  <!-- between entries -->\n"
        "  <key>t</key><true></true>\n"
        "</dict></plist>");
    ASSERT_TRUE(value.ok()) << value.error().message;
    EXPECT_EQ(*value->find("entities"), Value("<&>\"'A\xF0\x9F\x98\x80"));
    EXPECT_EQ(*value->find("cdata"), Value("<raw & text>"));
    EXPECT_EQ(*value->find("empty"), Value(""));
    EXPECT_EQ(value->find("hex")->int64(), 31);
    EXPECT_EQ(value->find("plus")->int64(), 7);
    EXPECT_EQ(value->find("inf")->real(), -std::numeric_limits<double>::infinity());
    EXPECT_EQ(value->find("date")->date(), Date{86400});
    EXPECT_EQ(*value->find("data"), Value(Data{'A', 'B', 'C', 'D', 'E', 'F'}));
    EXPECT_EQ(*value->find("crlf"), Value("a\nb"));
    EXPECT_EQ(value->find("t")->boolean(), true);
}

TEST(PlistXml, RealsAreDecimalsWithAPointOrTheSpecialNames) {
    auto real = [](std::string_view text) -> std::optional<double> {
        auto value = parse(("<real>" + std::string(text) + "</real>").c_str());
        if (!value) return std::nullopt;
        return value->real();
    };
    constexpr double inf = std::numeric_limits<double>::infinity();
    EXPECT_EQ(real("1.5"), 1.5);
    EXPECT_EQ(real(" .5 "), 0.5);
    EXPECT_EQ(real("5."), 5.0);
    EXPECT_EQ(real("+2.5e-3"), 2.5e-3);
    EXPECT_EQ(real("-1E3"), -1000.0);
    EXPECT_EQ(real("0.1"), 0.1);
    EXPECT_EQ(real("Infinity"), inf);
    EXPECT_EQ(real("-inf"), -inf);
    EXPECT_TRUE(std::isnan(real("NaN").value_or(0)));
    // Too small for a double is the nearest one; too large is refused.
    EXPECT_EQ(real("1e-400"), 0.0);
    EXPECT_EQ(real("1e999"), std::nullopt);
    EXPECT_EQ(real("-1.8e308"), std::nullopt);
    for (std::string_view bad :
         {"", "1e", "e5", ".", "-", "1.5x", "0x10", "1,5", "--1", "+-1", "in", "nan(1)", "1 2"}) {
        EXPECT_EQ(real(bad), std::nullopt) << bad;
    }
}

TEST(PlistXml, EveryDoubleReadsBackAsWritten) {
    for (double d : {0.1, 1.0 / 3, -0.0, 5e-324, 2.2250738585072014e-308, 1.7976931348623157e308, 123456789.125}) {
        auto text = encodeXml(Value(d));
        ASSERT_TRUE(text);
        auto value = parse(text->c_str());
        ASSERT_TRUE(value) << *text;
        EXPECT_EQ(value->real(), d) << *text;
        EXPECT_EQ(std::signbit(*value->real()), std::signbit(d)) << *text;
    }
}

TEST(PlistXml, BareValueWithoutPlistElement) {
    auto value = parse("<array><integer>1</integer></array>");
    ASSERT_TRUE(value.ok());
    EXPECT_EQ(*value, Value(Array{1}));
}

TEST(PlistXml, CarriageReturnSurvivesARoundTrip) {
    auto text = *encodeXml(Value("line\r\nnext\r"));
    EXPECT_EQ(*parse(text.c_str()), Value("line\r\nnext\r"));
}

// DEL and the C1 controls go out as references, so a document shown on a
// terminal cannot drive it, and come back as they were.
TEST(PlistXml, DeleteAndC1ControlsAreWrittenAsReferences) {
    const std::string text = "esc\xC2\x9B" "2J del\x7F nbsp\xC2\xA0 next\xC2\x85";
    auto xml = *encodeXml(Value(text));
    EXPECT_NE(xml.find("esc&#155;2J del&#127; nbsp\xC2\xA0 next&#133;"), std::string::npos) << xml;
    EXPECT_EQ(*parse(xml.c_str()), Value(text));
}

TEST(PlistXml, DuplicateKeysLookUpTheLastEntry) {
    auto value = parse("<dict><key>a</key><integer>1</integer><key>a</key><integer>2</integer></dict>");
    ASSERT_TRUE(value.ok());
    EXPECT_EQ(value->find("a")->int64(), 2);
    EXPECT_EQ(value->dictionary()->size(), 2u);
}

}  // namespace
}  // namespace netvane::plist
