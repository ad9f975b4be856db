#include "views/history_chart.h"

#include <gtest/gtest.h>

#include "views/svg_writer.h"

namespace netvane::views {
namespace {

long utc(Date) { return 0; }

std::size_t count(const std::string& text, const std::string& what) {
    std::size_t n = 0;
    for (auto at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

TEST(SvgWriter, EscapesTextAndPrintsNumbersAlike) {
    SvgWriter svg(SvgWriter::Attributes{{"viewBox", "0 0 1 1"}});
    svg.open("g", {{"data-interface", "a\"b<c>&'"}});
    svg.textElement("text", {}, std::string("bad\x01 \xff utf-8"));
    const std::string document = svg.finish();
    EXPECT_NE(document.find("data-interface=\"a&quot;b&lt;c&gt;&amp;&apos;\""), std::string::npos);
    EXPECT_NE(document.find("<text>bad\xEF\xBF\xBD \xEF\xBF\xBD utf-8</text>"), std::string::npos);
    EXPECT_NE(document.find("  </g>\n</svg>\n"), std::string::npos) << "finish closes what is open";
    EXPECT_EQ(SvgWriter::number(-0.001), "0");
    EXPECT_EQ(SvgWriter::number(12.5), "12.5");
    EXPECT_EQ(SvgWriter::number(3), "3");
    EXPECT_EQ(SvgWriter::number(1e20), "100000000000000000000");
}

TEST(HistoryChart, APanelPerInterfaceAndSameInputSameBytes) {
    const RateHistory::Retention retention{3600, 86400, 90 * 86400};
    HistorySet histories{{"eth0", RateHistory(retention)}, {"<lo>", RateHistory(retention)}};
    for (int i = 1; i <= 600; ++i) {
        histories["eth0"].add(RateSample{Date{50000.0 + i}, 1, 2000000, 1000});
        histories["<lo>"].add(RateSample{Date{50000.0 + i}, 1, 0, 0});
    }
    const ChartRequest request{"h.plist", 3600, Date{50600}, utc};
    const std::string chart = renderHistoryChart(histories, request);
    EXPECT_EQ(chart, renderHistoryChart(histories, request));
    EXPECT_EQ(count(chart, "class=\"panel\""), 2u);
    EXPECT_NE(chart.find("data-interface=\"&lt;lo&gt;\""), std::string::npos);
    EXPECT_NE(chart.find("Traffic in h.plist: 1 hour up to 2001-01-01 14:03 (UTC)"), std::string::npos);
    // eth0 peaks at 2 MB/s on a 0 to 2 MB/s axis; the idle one keeps an axis.
    EXPECT_NE(chart.find(">2.0 MB/s</text>"), std::string::npos);
    EXPECT_NE(chart.find(">10 B/s</text>"), std::string::npos);
    EXPECT_NE(chart.find("in 1.20 GB (average 2.00 MB/s, peak 2.00 MB/s)"), std::string::npos);
    EXPECT_EQ(chart.find("single reading"), std::string::npos);
    EXPECT_EQ(chart.find("no traffic"), std::string::npos);
}

TEST(HistoryChart, EmptyAndSingleReadingChartsSaySo) {
    const ChartRequest request{"h.plist", 86400, Date{50600}, utc};
    const std::string nothing = renderHistoryChart({}, request);
    EXPECT_NE(nothing.find("no interface histories"), std::string::npos);
    EXPECT_EQ(count(nothing, "class=\"panel\""), 0u);

    HistorySet one{{"eth0", RateHistory({3600, 86400, 90 * 86400})}};
    one["eth0"].add(RateSample{Date{50000}, 1, 100, 100});
    EXPECT_NE(renderHistoryChart(one, request).find("a single reading in this period"), std::string::npos);
    // Long before its one reading, the period holds nothing.
    const ChartRequest earlier{"h.plist", 3600, Date{10000}, utc};
    EXPECT_NE(renderHistoryChart(one, earlier).find("no traffic recorded in this period"), std::string::npos);
}

}  // namespace
}  // namespace netvane::views
