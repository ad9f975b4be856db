#include "netcore/history/rate_history.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

namespace netvane {
namespace {

const RateHistory::Retention kRetention{3600, 7 * 86400, 365 * 86400};

RateSample sampleAt(double end, double duration = 1, std::uint64_t in = 100, std::uint64_t out = 10) {
    return RateSample{Date{end}, duration, in, out};
}

std::vector<double> starts(const Tier& tier) {
    std::vector<double> result;
    for (const Bucket& b : tier.buckets) result.push_back(b.start.secondsSinceReference);
    return result;
}

TEST(RateHistory, SamplesFallIntoTheirSlots) {
    RateHistory history(kRetention);
    const double t = 7265.5;  // 2:01:05.5
    history.add(sampleAt(t, 1, 100, 0));
    history.add(sampleAt(t + 10, 1, 300, 0));  // same minute: merges
    history.add(sampleAt(t + 60, 1, 50, 0));   // next minute, same hour
    EXPECT_EQ(starts(history.tiers[0]), (std::vector<double>{t, t + 10, t + 60}));
    EXPECT_EQ(starts(history.tiers[1]), (std::vector<double>{7260, 7320}));
    EXPECT_EQ(starts(history.tiers[2]), (std::vector<double>{7200}));
    EXPECT_EQ(history.tiers[1].buckets[0].bytesIn, 400u);
    EXPECT_EQ(history.tiers[1].buckets[0].maxIn, 300);
    EXPECT_EQ(history.tiers[2].buckets[0].bytesIn, 450u);
    EXPECT_EQ(history.tiers[2].buckets[0].seconds, 3);
}

TEST(RateHistory, SlotsOfTimesBeforeTheReferenceDateRoundDown) {
    RateHistory history(kRetention);
    history.add(sampleAt(-30));
    EXPECT_EQ(starts(history.tiers[1]), (std::vector<double>{-60}));
    EXPECT_EQ(starts(history.tiers[2]), (std::vector<double>{-3600}));
}

TEST(RateHistory, OnlyTheNewestBucketIsMergedInto) {
    RateHistory history(kRetention);
    history.add(sampleAt(1000));
    history.add(sampleAt(900));   // an older minute: appended out of order
    history.add(sampleAt(1010));  // its minute is no longer the newest bucket
    EXPECT_EQ(starts(history.tiers[1]), (std::vector<double>{960, 900, 960}));
    EXPECT_EQ(starts(history.tiers[2]), (std::vector<double>{0}));
    EXPECT_EQ(history.tiers[2].buckets[0].bytesIn, 300u);
}

TEST(RateHistory, SamplesWithoutPositiveDurationAreDropped) {
    RateHistory history(kRetention);
    history.add(sampleAt(100, 0));
    history.add(sampleAt(100, -1));
    history.add(sampleAt(100, std::numeric_limits<double>::quiet_NaN()));
    EXPECT_TRUE(history.isEmpty());
    history.add(sampleAt(100, 0.001, 0, 0));
    EXPECT_FALSE(history.isEmpty());
    EXPECT_FALSE(history.hasTraffic());
    history.add(sampleAt(101, 1, 0, 1));
    EXPECT_TRUE(history.hasTraffic());
}

TEST(RateHistory, PruneDropsOnlyWhollyExpiredBuckets) {
    RateHistory history({300, 3600, 86400});
    for (double t = 1000; t <= 2000; t += 10) history.add(sampleAt(t));
    history.prune(Date{2000});  // cutoff 1700 for raw, -1600 for minutes
    EXPECT_EQ(history.tiers[0].buckets.front().start, Date{1710}) << "a raw bucket at the cutoff is dropped";
    EXPECT_EQ(history.tiers[0].buckets.size(), 30u);

    history.tiers[1].retention = 2000 - 1030;  // cutoff 1030: minute [960, 1020) ended, [1020, 1080) did not
    history.prune(Date{2000});
    EXPECT_EQ(history.tiers[1].buckets.front().start, Date{1020});
    history.tiers[1].retention = 2000 - 1080;  // cutoff exactly at that minute's end
    history.prune(Date{2000});
    EXPECT_EQ(history.tiers[1].buckets.front().start, Date{1080});

    history.prune(Date{1e9});
    EXPECT_TRUE(history.isEmpty());
}

TEST(RateHistory, PruneStopsAtTheFirstBucketStillInTheWindow) {
    RateHistory history({100, 3600, 86400});
    history.add(sampleAt(500));
    history.add(sampleAt(100));  // out of order behind a bucket that stays
    history.prune(Date{550});
    EXPECT_EQ(starts(history.tiers[0]), (std::vector<double>{500, 100}));
}

TEST(RateHistory, PruneNeverDropsABucketThatOverlapsTheWindow) {
    std::mt19937_64 rng(7);
    for (int round = 0; round < 200; ++round) {
        std::uniform_real_distribution<double> retention(1, 8000);
        RateHistory history({retention(rng), retention(rng), retention(rng)});
        double t = 0;
        for (int i = 0; i < 300; ++i) {
            t += std::uniform_real_distribution<double>(0.1, 120)(rng);
            // Now and then a sample from the past arrives late.
            double end = (i % 37 == 0) ? t - 500 : t;
            history.add(sampleAt(end, 1));
        }
        const RateHistory before = history;
        Date now{std::uniform_real_distribution<double>(0, t + 9000)(rng)};
        history.prune(now);
        for (std::size_t k = 0; k < 3; ++k) {
            const Tier& old = before.tiers[k];
            const Tier& kept = history.tiers[k];
            std::size_t dropped = old.buckets.size() - kept.buckets.size();
            double cutoff = now.secondsSinceReference - old.retention;
            for (std::size_t i = 0; i < dropped; ++i) {
                EXPECT_LE(old.endOf(old.buckets[i]), cutoff) << "tier " << k << " dropped a live bucket";
            }
            ASSERT_TRUE(std::equal(kept.buckets.begin(), kept.buckets.end(), old.buckets.begin() + dropped));
            if (!kept.buckets.empty()) {
                EXPECT_GT(kept.endOf(kept.buckets.front()), cutoff);
            }
        }
    }
}

TEST(RateHistory, ApplyKeepsBucketsOfThreeTiersAndRebuildsOtherShapes) {
    RateHistory history(kRetention);
    history.add(sampleAt(100));
    history.apply({10, 20, 30});
    EXPECT_EQ(history.tiers[0].retention, 10);
    EXPECT_EQ(history.tiers[1].retention, 20);
    EXPECT_EQ(history.tiers[2].retention, 30);
    EXPECT_EQ(history.tiers[0].buckets.size(), 1u);

    history.tiers.pop_back();  // as decoded from a file with two tiers
    history.apply({10, 20, 30});
    ASSERT_EQ(history.tiers.size(), 3u);
    EXPECT_TRUE(history.isEmpty());
    EXPECT_EQ((std::vector<double>{history.tiers[0].granularity, history.tiers[1].granularity,
                                   history.tiers[2].granularity}),
              (std::vector<double>{0, 60, 3600}));
    EXPECT_EQ(history.tiers[1].retention, 20);
    EXPECT_TRUE(RateHistory().isEmpty()) << "no tiers at all";
}

TEST(RateHistory, RecentSamplesComeFromTheRawTier) {
    RateHistory history(kRetention);
    EXPECT_TRUE(history.recentSamples(5).empty());
    for (int i = 1; i <= 4; ++i) history.add(sampleAt(100 * i, i, 10 * i, i));
    EXPECT_TRUE(history.recentSamples(0).empty());
    EXPECT_EQ(history.recentSamples(2), (std::vector<RateSample>{sampleAt(300, 3, 30, 3), sampleAt(400, 4, 40, 4)}));
    EXPECT_EQ(history.recentSamples(99).size(), 4u);
    EXPECT_EQ(history.recentSamples(99).front(), sampleAt(100, 1, 10, 1));
}

TEST(RateHistoryDeathTest, RecentSamplesRejectsProgrammingErrors) {
    RateHistory history(kRetention);
    EXPECT_DEATH((void)history.recentSamples(-1), "negative");
    RateHistory noTiers;
    EXPECT_DEATH((void)noTiers.recentSamples(1), "without tiers");
}

TEST(RateHistory, AggregateReachesBackToTheCutoffWithoutDoubleCounting) {
    const double now = 36000;
    RateHistory history({120, 3600, 86400});
    for (double t = now - 3599; t <= now; t += 1) history.add(sampleAt(t, 1, 1, 2));
    history.prune(Date{now});
    ASSERT_EQ(history.tiers[0].buckets.size(), 120u);

    // The raw data cover only the last 120 s; the minute buckets reach back
    // to the cutoff (now-300 ... now), the one at the cutoff included.
    RateAggregate aggregate = history.aggregate(300, Date{now});
    EXPECT_EQ(aggregate.bytesIn, 301u);
    EXPECT_EQ(aggregate.bytesOut, 602u);
    EXPECT_DOUBLE_EQ(aggregate.seconds, 301);
    EXPECT_DOUBLE_EQ(aggregate.averageIn(), 1);
    EXPECT_EQ(aggregate.minIn, 1);
    EXPECT_EQ(aggregate.maxOut, 2);

    EXPECT_EQ(history.aggregate(100, Date{now}).bytesIn, 100u) << "inside the raw data only raw buckets count";
    EXPECT_TRUE(history.aggregate(100, Date{now + 5000}).isEmpty()) << "all data older than the period";
    EXPECT_TRUE(RateHistory(kRetention).aggregate(100, Date{now}).isEmpty());
}

TEST(RateHistory, AggregateInsideRawRetentionEqualsBruteForceSum) {
    std::mt19937_64 rng(42);
    for (int round = 0; round < 100; ++round) {
        RateHistory history(kRetention);
        std::vector<RateSample> samples;
        double t = std::uniform_real_distribution<double>(-1e6, 1e6)(rng);
        for (int i = 0; i < 400; ++i) {
            t += std::uniform_real_distribution<double>(0.05, 20)(rng);
            RateSample s{Date{t}, std::uniform_real_distribution<double>(0.05, 20)(rng),
                         std::uniform_int_distribution<std::uint64_t>(0, 1'000'000)(rng),
                         std::uniform_int_distribution<std::uint64_t>(0, 1'000'000)(rng)};
            history.add(s);
            samples.push_back(s);
        }
        const double first = samples.front().end.secondsSinceReference;
        const double now = t + std::uniform_real_distribution<double>(0, 30)(rng);
        const double period = std::uniform_real_distribution<double>(0, now - first)(rng);

        RateAggregate expected;
        for (auto it = samples.rbegin(); it != samples.rend(); ++it) {
            if (it->end.secondsSinceReference > now - period) expected.add(Bucket::opened(it->end, *it));
        }
        RateAggregate actual = history.aggregate(period, Date{now});
        EXPECT_EQ(actual.bytesIn, expected.bytesIn);
        EXPECT_EQ(actual.bytesOut, expected.bytesOut);
        EXPECT_DOUBLE_EQ(actual.seconds, expected.seconds);
        EXPECT_EQ(actual.minIn, expected.minIn);
        EXPECT_EQ(actual.maxIn, expected.maxIn);
        EXPECT_EQ(actual.minOut, expected.minOut);
        EXPECT_EQ(actual.maxOut, expected.maxOut);
    }
}

// One sample per second, each carrying its ordinal (1, 2, ...) as bytes out,
// so that the newest n samples counted once each have a known sum.
struct OrdinalStream {
    double first = 0;
    double span = 0;
    RateHistory history;

    OrdinalStream(double first, double span, const RateHistory::Retention& retention)
        : first(first), span(span), history(retention) {
        for (double t = first; t <= now(); t += 1) history.add(sampleAt(t, 1, 1, ordinal(t)));
        history.prune(Date{now()});
    }
    double now() const { return first + span; }
    std::uint64_t ordinal(double t) const { return static_cast<std::uint64_t>(t - first + 1); }
    // Sum of the ordinals of the newest `count` samples.
    std::uint64_t newestSum(std::uint64_t count) const {
        std::uint64_t last = ordinal(now());
        return (2 * last - count + 1) * count / 2;
    }
};

// The finest tier whose data begin at or before `cutoff`: what the far end of
// an aggregate may leave out is shorter than one of its slots.
double slotHoldingTheCutoff(const RateHistory& history, double cutoff) {
    for (const Tier& tier : history.tiers) {
        if (!tier.buckets.empty() && tier.buckets.front().start.secondsSinceReference <= cutoff) {
            return tier.granularity;
        }
    }
    return -1;  // none: all of the stored data lie inside the period
}

// Whatever the tiers have kept, the aggregate is the newest samples, each once,
// back to a start that falls short of the cutoff by less than one slot of the
// finest tier still holding it (by nothing where the raw tier holds it).
TEST(RateHistory, AggregateCountsOneUnbrokenStretchBackToTheCutoff) {
    std::mt19937_64 rng(3);
    for (int historyRound = 0; historyRound < 60; ++historyRound) {
        // Young histories (under an hour) included: their hour slot overlaps
        // everything the finer tiers hold.
        const double span = std::floor(std::uniform_real_distribution<double>(10, 6 * 3600)(rng));
        const double rawKeep = std::uniform_real_distribution<double>(60, 3600)(rng);
        // Minute data pruned inside the hour that holds the raw data, or kept
        // longer than the history.
        const double minuteKeep = historyRound % 3 == 0 ? span + 3600
                                                        : std::uniform_real_distribution<double>(rawKeep, 3 * 3600)(rng);
        OrdinalStream stream(std::floor(std::uniform_real_distribution<double>(0, 1e6)(rng)), span,
                             {rawKeep, minuteKeep, 365 * 86400});
        for (int round = 0; round < 50; ++round) {
            double period = std::uniform_real_distribution<double>(1, span + 8000)(rng);
            if (round % 10 == 0) period = std::ceil(period / 60) * 60;
            const double cutoff = stream.now() - period;
            RateAggregate aggregate = stream.history.aggregate(period, Date{stream.now()});
            const std::uint64_t count = aggregate.bytesIn;
            SCOPED_TRACE(::testing::Message() << "span " << span << " raw " << rawKeep << " minute " << minuteKeep
                                              << " period " << period);
            ASSERT_GT(count, 0u);
            ASSERT_EQ(aggregate.bytesOut, stream.newestSum(count)) << "double counting or a hole";
            EXPECT_DOUBLE_EQ(aggregate.seconds, static_cast<double>(count));

            const double start = stream.now() - static_cast<double>(count) + 1;
            EXPECT_GE(start, std::ceil(cutoff)) << "a sample before the period";
            const double slot = slotHoldingTheCutoff(stream.history, cutoff);
            if (slot < 0) {
                EXPECT_EQ(start, stream.first) << "stored samples left out";
            } else if (slot == 0) {
                EXPECT_EQ(start, std::floor(cutoff) + 1) << "the raw tier left a sample out";
            } else {
                EXPECT_LT(start, cutoff + slot) << "more left out than one slot";
            }
        }
    }
}

TEST(RateHistory, PrunedMinuteDataInsideTheHandOverHourLeaveNoGap) {
    // Raw data for the last 2 minutes, minute data for the last 10, and the
    // reading half an hour into an hour: the minute tier begins 20 minutes
    // into that hour, whose slot also holds everything the finer tiers do.
    OrdinalStream stream(100 * 3600, 9000, {120, 600, 365 * 86400});
    ASSERT_EQ(std::fmod(stream.now(), 3600), 1800);
    RateAggregate day = stream.history.aggregate(86400, Date{stream.now()});
    EXPECT_EQ(day.bytesIn, 9001u);
    EXPECT_EQ(day.bytesOut, stream.newestSum(9001));
}

TEST(RateHistory, YoungHistoryIsNotCountedTwiceOverALongPeriod) {
    RateHistory history({3600, 7 * 86400, 365 * 86400});
    for (double t = 1000; t < 1300; t += 30) history.add(sampleAt(t, 30, 300, 30));
    RateAggregate day = history.aggregate(86400, Date{1300});
    EXPECT_EQ(day.bytesIn, 3000u);
    EXPECT_DOUBLE_EQ(day.seconds, 300);
}

}  // namespace
}  // namespace netvane
