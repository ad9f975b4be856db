#include "views/top_view.h"

#include <gtest/gtest.h>

namespace netvane::views {
namespace {

constexpr double kNow = 100000;

// One sample per second for the last `seconds`, at `rate` bytes in per second.
std::vector<RateSample> steady(double rate, int seconds) {
    std::vector<RateSample> samples;
    for (int i = seconds - 1; i >= 0; --i) {
        samples.push_back(RateSample{Date{kNow - i}, 1, static_cast<std::uint64_t>(rate), 0});
    }
    return samples;
}

// Columns of a UTF-8 line in which every glyph is one column.
std::size_t columns(const std::string& line) {
    std::size_t count = 0;
    for (unsigned char c : line) count += (c & 0xC0) != 0x80;
    return count;
}

TEST(Sparkline, BinsSamplesByTimeAndScalesToTheRowsPeak) {
    std::vector<RateSample> samples = steady(100, 60);
    samples[59].bytesIn = 800;  // the newest second peaks
    samples[0].bytesIn = 0;     // the oldest is idle
    const auto values = binRates(samples, Date{kNow}, 60, 6);
    ASSERT_EQ(values.size(), 6u);
    // Ten seconds a column; the last holds nine at 100 and one at 800.
    EXPECT_DOUBLE_EQ(*values[5], (9 * 100 + 800) / 10.0);
    EXPECT_DOUBLE_EQ(*values[0], 90);
    EXPECT_EQ(sparkline(binRates(samples, Date{kNow}, 60, 60), SparkGlyphs::ascii()).substr(0, 3), "_..")
        << "idle and a trickle look different";
    EXPECT_EQ(sparkline(binRates(samples, Date{kNow}, 60, 60), SparkGlyphs::blocks()).substr(57 * 3), "▂▂█");
    // Seconds without any reading stay blank; samples outside the window are ignored.
    const std::vector<RateSample> sparse{{Date{kNow - 30}, 1, 50, 50}, {Date{kNow - 90}, 1, 1000000, 0}};
    EXPECT_EQ(sparkline(binRates(sparse, Date{kNow}, 60, 4), SparkGlyphs::ascii()), " #  ");
}

TEST(TopView, RowsAreSortedByTheLastMinuteAndMarkThePrimary) {
    std::vector<TopInterface> interfaces(3);
    interfaces[0].name = "lo";
    interfaces[0].recent = steady(10, 60);
    interfaces[0].current = RateSample{Date{kNow}, 1, 5000000, 0};  // a burst just now
    interfaces[1].name = "eth0";
    interfaces[1].recent = steady(100000, 60);
    interfaces[1].current = RateSample{Date{kNow}, 1, 1000, 0};
    interfaces[2].name = "wlan0";
    const auto rows = topRows(interfaces, {"wlan0"}, Date{kNow});
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(rows[0].name, "eth0");
    EXPECT_EQ(rows[1].name, "lo");
    EXPECT_EQ(rows[2].name, "wlan0");
    EXPECT_TRUE(rows[2].primary);
    EXPECT_DOUBLE_EQ(rows[0].windowRate, 100000);
    EXPECT_DOUBLE_EQ(rows[1].rateIn, 5000000);
}

TEST(TopView, LinesFitTheScreenAndSayWhatDoesNot) {
    std::vector<TopInterface> interfaces;
    for (int i = 0; i < 10; ++i) {
        TopInterface interface;
        interface.name = "veth" + std::to_string(i);
        interface.recent = steady(1000.0 * (i + 1), 60);
        interface.current = interface.recent.back();
        interface.totalIn = 1210000;
        interfaces.push_back(interface);
    }
    const auto rows = topRows(interfaces, {"veth3"}, Date{kNow});
    TopScreen screen{"14:03:22", 1, false, 120, 40};
    auto lines = topLines(rows, screen, Date{kNow}, SparkGlyphs::blocks());
    ASSERT_EQ(lines.size(), 13u);
    EXPECT_NE(lines[0].find("14:03:22"), std::string::npos);
    EXPECT_NE(lines[2].find("LAST MINUTE"), std::string::npos);
    EXPECT_EQ(lines[3].rfind("  veth9", 0), 0u);
    EXPECT_NE(lines[3].find("10.0 KB/s"), std::string::npos);
    EXPECT_NE(lines[3].find("1.21 MB"), std::string::npos);
    EXPECT_NE(lines[3].find("██████"), std::string::npos);
    EXPECT_EQ(lines[9].rfind("* veth3", 0), 0u);
    for (const auto& line : lines) EXPECT_LE(columns(line), 120u) << line;

    // Too narrow for a sparkline: none, and nothing wider than the screen.
    screen.width = 60;
    screen.height = 8;
    lines = topLines(rows, screen, Date{kNow}, SparkGlyphs::blocks());
    ASSERT_EQ(lines.size(), 8u);
    EXPECT_EQ(lines[2].find("LAST MINUTE"), std::string::npos);
    for (const auto& line : lines) EXPECT_LE(columns(line), 60u) << line;
    EXPECT_EQ(lines.back(), "  ... 6 more");
    screen.height = 0;
    EXPECT_TRUE(topLines(rows, screen, Date{kNow}, SparkGlyphs::blocks()).empty());
}

// An interface's name is whatever its maker chose: its escape sequences are
// shown, never sent to the terminal, and the primary mark still finds it.
TEST(TopView, NamesAreShownWithTheirControlsEscaped) {
    TopInterface hostile;
    hostile.name = "e\x1b[2J\rv\xff";
    hostile.current = RateSample{Date{kNow}, 1, 100, 0};
    const auto rows = topRows({hostile}, {hostile.name}, Date{kNow});
    const auto lines = topLines(rows, TopScreen{"14:03:22", 1, false, 120, 10}, Date{kNow}, SparkGlyphs::ascii());
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[3].rfind("* e\\x1b[2J\\rv\xEF\xBF\xBD ", 0), 0u) << lines[3];
    for (const auto& line : lines) {
        for (unsigned char c : line) EXPECT_TRUE(c >= 0x20 && c != 0x7f) << line;
    }
}

}  // namespace
}  // namespace netvane::views
