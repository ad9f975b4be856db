#include "views/chart_series.h"

#include <gtest/gtest.h>

#include <cstdint>

namespace netvane::views {
namespace {

// A history recorded the way the live commands record it: a reading every
// `interval` seconds from `from` to `to`, pruned after each, with traffic
// that changes from sample to sample.
RateHistory recorded(double from, double to, double interval, const RateHistory::Retention& retention,
                     double pauseFrom = 0, double pauseTo = 0) {
    RateHistory history(retention);
    std::uint64_t seed = 12345;
    for (double end = from + interval; end <= to; end += interval) {
        seed = seed * 6364136223846793005ULL + 1442695040888963407ULL;
        // A pause drops the readings inside it, as a stalled machine would.
        if (end > pauseFrom && end <= pauseTo) continue;
        history.add(RateSample{Date{end}, interval, (seed >> 40) % 100000, (seed >> 20) % 5000});
        history.prune(Date{end});
    }
    return history;
}

struct Sums {
    std::uint64_t in = 0;
    std::uint64_t out = 0;
    double seconds = 0;
};

Sums sumFrom(const std::vector<ChartStep>& steps, std::size_t first) {
    Sums sums;
    for (std::size_t i = first; i < steps.size(); ++i) {
        sums.in += steps[i].bytesIn;
        sums.out += steps[i].bytesOut;
        sums.seconds += steps[i].seconds;
    }
    return sums;
}

// From every step boundary on, the steps hold what aggregate counts for
// that stretch: each sample once, whichever tiers the steps came from.
void expectStepsMatchAggregate(const RateHistory& history, double period, Date now, const std::vector<ChartStep>& steps) {
    ASSERT_FALSE(steps.empty());
    const RateAggregate whole = history.aggregate(period, now);
    EXPECT_EQ(sumFrom(steps, 0).in, whole.bytesIn);
    for (std::size_t k = 0; k < steps.size(); ++k) {
        const double cutoff = steps[k].from;
        if (cutoff < now.secondsSinceReference - period) continue;
        const RateAggregate tail = history.aggregate(now.secondsSinceReference - cutoff, now);
        const Sums sums = sumFrom(steps, k);
        ASSERT_EQ(sums.in, tail.bytesIn) << "from step " << k << " at " << cutoff;
        ASSERT_EQ(sums.out, tail.bytesOut) << "from step " << k;
        ASSERT_DOUBLE_EQ(sums.seconds, tail.seconds) << "from step " << k;
    }
}

TEST(ChartSeries, StitchedTiersCountEverySampleOnceFromEveryBoundary) {
    // Raw samples for the last 20 minutes, minutes for two hours, hours
    // beyond: six hours of recording reach all three tiers.
    const RateHistory::Retention retention{1200, 7200, 90 * 86400};
    const double end = 36000;
    const RateHistory history = recorded(end - 6 * 3600 - 5, end, 10, retention);
    const std::vector<ChartStep> steps = stitchedSteps(history, 8 * 3600, Date{end});
    // All three tiers drew a stretch, oldest first.
    EXPECT_EQ(steps.front().granularity, 3600);
    EXPECT_EQ(steps.back().granularity, 0);
    bool minutes = false;
    for (std::size_t i = 1; i < steps.size(); ++i) {
        // In time order; only a raw sample after a hand-over may reach back
        // into the slot before it.
        EXPECT_LE(steps[i - 1].to, steps[i].to) << i;
        if (steps[i].granularity == steps[i - 1].granularity) {
            EXPECT_LE(steps[i - 1].to, steps[i].from) << i;
        }
        minutes = minutes || steps[i].granularity == 60;
    }
    EXPECT_TRUE(minutes);
    expectStepsMatchAggregate(history, 8 * 3600, Date{end}, steps);
    // A period shorter than the minutes reach: minutes and raw only.
    expectStepsMatchAggregate(history, 3000, Date{end}, stitchedSteps(history, 3000, Date{end}));
}

TEST(ChartSeries, PausesAndMergingKeepTotalsAndBoundaries) {
    const RateHistory::Retention retention{1200, 7200, 90 * 86400};
    const double end = 72000;
    const RateHistory history = recorded(end - 3 * 3600, end, 5, retention, end - 900, end - 600);
    const std::vector<ChartStep> steps = stitchedSteps(history, 4 * 3600, Date{end});
    const std::vector<ChartStep> merged = mergeSteps(steps, 120);
    EXPECT_LT(merged.size(), steps.size() / 4);
    expectStepsMatchAggregate(history, 4 * 3600, Date{end}, merged);
    // The pause stays a gap: no step spans it.
    for (const ChartStep& step : merged) EXPECT_FALSE(step.from < end - 900 && step.to > end - 600);
    // Every merged boundary is a bucket boundary, and no merged step mixes
    // tiers.
    std::size_t next = 0;
    for (const ChartStep& step : merged) {
        ASSERT_LT(next, steps.size());
        EXPECT_EQ(steps[next].from, step.from) << "a merged step starts inside a bucket";
        double to = step.from;
        while (next < steps.size() && steps[next].granularity == step.granularity && steps[next].from >= step.from &&
               steps[next].to <= step.to) {
            to = steps[next++].to;
        }
        EXPECT_EQ(to, step.to) << "a merged step ends inside a bucket, or mixes tiers";
    }
    EXPECT_EQ(next, steps.size());
}

TEST(ChartSeries, AHistoryYoungerThanOneHourIsDrawnOnce) {
    // Ten minutes inside one hour slot: the hour bucket holds everything the
    // finer tiers hold, and must not be drawn beside them.
    const RateHistory::Retention retention{300, 7200, 90 * 86400};
    const double end = 3600 * 10 + 1800;
    const RateHistory history = recorded(end - 600, end, 1, retention);
    const std::vector<ChartStep> steps = stitchedSteps(history, 86400, Date{end});
    for (const ChartStep& step : steps) EXPECT_NE(step.granularity, 3600);
    expectStepsMatchAggregate(history, 86400, Date{end}, steps);
}

TEST(ChartSeries, EmptyAndSingleReadingHistories) {
    const RateHistory::Retention retention{3600, 7200, 90 * 86400};
    EXPECT_TRUE(stitchedSteps(RateHistory(retention), 3600, Date{1000}).empty());
    EXPECT_TRUE(stitchedSteps(RateHistory(), 3600, Date{1000}).empty());

    RateHistory one(retention);
    one.add(RateSample{Date{1000.5}, 2, 4000, 100});
    const std::vector<ChartStep> steps = stitchedSteps(one, 3600, Date{1001});
    ASSERT_EQ(steps.size(), 1u);
    EXPECT_EQ(steps[0].bytesIn, 4000u);
    EXPECT_EQ(steps[0].rateIn(), 2000);
    // Outside the period it is not drawn at all.
    EXPECT_TRUE(stitchedSteps(one, 10, Date{5000}).empty());
}

}  // namespace
}  // namespace netvane::views
