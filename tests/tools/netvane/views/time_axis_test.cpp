#include "views/time_axis.h"

#include <gtest/gtest.h>

namespace netvane::views {
namespace {

// 2026-03-29T00:00:00Z, the night a zone an hour east of UTC moves on to
// daylight saving time at 01:00 UTC.
constexpr double kMarch29 = 796435200;

long utc(Date) { return 0; }
long india(Date) { return 5 * 3600 + 1800; }
long springForward(Date moment) { return moment.secondsSinceReference < kMarch29 + 3600 ? 3600 : 7200; }

std::vector<std::string> labels(const std::vector<TimeTick>& ticks) {
    std::vector<std::string> result;
    for (const TimeTick& tick : ticks) result.push_back(tick.label);
    return result;
}

TEST(TimeAxis, TicksFallOnRoundLocalTimesAndNameTheDayAtMidnight) {
    // 22:10 to 04:10 UTC: hourly ticks, the one at midnight names the day.
    const Date from{kMarch29 - 110 * 60};
    const Date to{kMarch29 + 250 * 60};
    EXPECT_EQ(labels(timeTicks(from, to, 8, utc)),
              (std::vector<std::string>{"23:00", "29 Mar", "01:00", "02:00", "03:00", "04:00"}));
    // Half an hour off UTC: the same stretch ticks at local round hours,
    // which are half past in UTC.
    const auto ticks = timeTicks(from, to, 8, india);
    ASSERT_FALSE(ticks.empty());
    EXPECT_EQ(ticks.front().label, "04:00");
    EXPECT_EQ(static_cast<long>(ticks.front().time.secondsSinceReference) % 3600, 1800);
    // Short spans tick in seconds, long ones in days, always within maxTicks.
    EXPECT_EQ(labels(timeTicks(Date{kMarch29 + 1}, Date{kMarch29 + 9}, 4, utc)),
              (std::vector<std::string>{"00:00:02", "00:00:04", "00:00:06", "00:00:08"}));
    const auto month = timeTicks(Date{kMarch29}, Date{kMarch29 + 30 * 86400}, 8, utc);
    EXPECT_LE(month.size(), 8u);
    EXPECT_EQ(month.front().label, "30 Mar") << "weekly ticks fall on Mondays";
}

TEST(TimeAxis, ADaylightSavingJumpNeitherRepeatsNorReordersTicks) {
    const auto ticks = timeTicks(Date{kMarch29 - 3 * 3600}, Date{kMarch29 + 5 * 3600}, 10, springForward);
    ASSERT_GE(ticks.size(), 6u);
    for (std::size_t i = 1; i < ticks.size(); ++i) EXPECT_LT(ticks[i - 1].time, ticks[i].time);
    // 02:00 local does not exist that night; 01:00 and 03:00 do.
    const auto names = labels(ticks);
    EXPECT_NE(std::find(names.begin(), names.end(), "03:00"), names.end());
    EXPECT_EQ(std::count(names.begin(), names.end(), "03:00"), 1);
}

TEST(TimeAxis, EmptyRangesAndOffsetsText) {
    EXPECT_TRUE(timeTicks(Date{100}, Date{100}, 5, utc).empty());
    EXPECT_TRUE(timeTicks(Date{200}, Date{100}, 5, utc).empty());
    EXPECT_EQ(formatUTCOffset(0), "UTC");
    EXPECT_EQ(formatUTCOffset(19800), "UTC+05:30");
    EXPECT_EQ(formatUTCOffset(-34200), "UTC-09:30");
    EXPECT_EQ(formatLocalMinute(Date{kMarch29 + 90}, india), "2026-03-29 05:31");
}

}  // namespace
}  // namespace netvane::views
