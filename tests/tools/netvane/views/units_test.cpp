#include "views/units.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <set>

namespace netvane::views {
namespace {

TEST(Units, RatesAndBytesReadInTheLargestUnitAboveOne) {
    EXPECT_EQ(formatRate(0), "0 B/s");
    EXPECT_EQ(formatRate(999.4), "999 B/s");
    // Rounding up to a thousand moves on to the next unit.
    EXPECT_EQ(formatRate(999.6), "1.00 KB/s");
    EXPECT_EQ(formatRate(1500), "1.50 KB/s");
    EXPECT_EQ(formatRate(12345678), "12.3 MB/s");
    EXPECT_EQ(formatRate(999.96e6), "1.00 GB/s");
    EXPECT_EQ(formatRate(-1), "-");
    EXPECT_EQ(formatRate(std::numeric_limits<double>::infinity()), "-");
    EXPECT_EQ(formatBytes(0), "0 B");
    EXPECT_EQ(formatBytes(1210000), "1.21 MB");
    EXPECT_EQ(formatBytes(UINT64_MAX), "18.4 EB") << "the largest count has no unit beyond";
}

TEST(Units, ScalesAreRoundHoldTheMaximumAndLabelInOneUnit) {
    for (double max : {0.3, 7.0, 10.0, 999.0, 1001.0, 2.4e6, 2.5e6, 7.77e8, 3e12}) {
        const RateScale scale = rateScale(max, 4);
        const double mantissa = scale.step / std::pow(10.0, std::floor(std::log10(scale.step)));
        EXPECT_TRUE(std::abs(mantissa - 1) < 1e-9 || std::abs(mantissa - 2) < 1e-9 || std::abs(mantissa - 5) < 1e-9)
            << max << ": step " << scale.step;
        EXPECT_GE(scale.top, max);
        const std::vector<double> ticks = scale.ticks();
        EXPECT_LE(ticks.size(), 5u) << max;
        EXPECT_EQ(ticks.back(), scale.top);
        // The labels tell every tick apart and share the unit.
        std::set<std::string> labels;
        for (double tick : ticks) {
            const std::string label = scale.label(tick);
            EXPECT_NE(label.find(scale.unitName), std::string::npos);
            labels.insert(label);
        }
        EXPECT_EQ(labels.size(), ticks.size()) << max;
    }
    const RateScale mega = rateScale(2.4e6, 4);
    EXPECT_EQ(mega.label(mega.step), "1 MB/s");
    EXPECT_EQ(mega.label(mega.top), "3 MB/s");
    const RateScale half = rateScale(2e6, 4);
    EXPECT_EQ(half.label(half.step), "0.5 MB/s");
    EXPECT_EQ(half.label(half.top), "2.0 MB/s");
    // Nothing to show still leaves an axis.
    const RateScale idle = rateScale(0, 4);
    EXPECT_EQ(idle.top, 10);
    EXPECT_EQ(rateScale(std::nan(""), 4).top, 10);
}

}  // namespace
}  // namespace netvane::views
