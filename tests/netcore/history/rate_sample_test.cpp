#include "netcore/history/rate_sample.h"

#include <gtest/gtest.h>

#include <limits>

namespace netvane {
namespace {

constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();

TEST(RateSample, RatesAreBytesPerSecond) {
    RateSample sample{Date{10}, 0.5, 1000, 250};
    EXPECT_DOUBLE_EQ(sample.rateIn(), 2000);
    EXPECT_DOUBLE_EQ(sample.rateOut(), 500);
}

TEST(Bucket, TracksTotalsAndExtremeRates) {
    Bucket bucket = Bucket::opened(Date{60}, RateSample{Date{61}, 1, 20, 5});
    EXPECT_EQ(bucket.start, Date{60});
    bucket.add(RateSample{Date{62}, 2, 20, 0});  // 10 B/s in
    bucket.add(RateSample{Date{63}, 0.5, 15, 50});  // 30 B/s in
    EXPECT_DOUBLE_EQ(bucket.seconds, 3.5);
    EXPECT_EQ(bucket.bytesIn, 55u);
    EXPECT_EQ(bucket.bytesOut, 55u);
    EXPECT_DOUBLE_EQ(bucket.minIn, 10);
    EXPECT_DOUBLE_EQ(bucket.maxIn, 30);
    EXPECT_DOUBLE_EQ(bucket.minOut, 0);
    EXPECT_DOUBLE_EQ(bucket.maxOut, 100);
    EXPECT_EQ(bucket.start, Date{60}) << "adding never moves the slot";
}

TEST(RateAggregate, FreshAggregateIsEmptyWithZeroAverages) {
    RateAggregate aggregate;
    EXPECT_TRUE(aggregate.isEmpty());
    EXPECT_EQ(aggregate.averageIn(), 0);
    EXPECT_EQ(aggregate.averageOut(), 0);
    EXPECT_EQ(aggregate.minIn, std::numeric_limits<double>::infinity());
    EXPECT_EQ(aggregate.maxIn, 0);
}

TEST(RateAggregate, TakesWholeBuckets) {
    RateAggregate aggregate;
    aggregate.add(Bucket{Date{0}, 4, 400, 40, 50, 150, 5, 15});
    aggregate.add(Bucket{Date{60}, 1, 100, 0, 100, 100, 0, 0});
    EXPECT_FALSE(aggregate.isEmpty());
    EXPECT_DOUBLE_EQ(aggregate.averageIn(), 100);
    EXPECT_DOUBLE_EQ(aggregate.averageOut(), 8);
    EXPECT_EQ(aggregate.minIn, 50);
    EXPECT_EQ(aggregate.maxIn, 150);
    EXPECT_EQ(aggregate.minOut, 0);
    EXPECT_EQ(aggregate.maxOut, 15);
}

TEST(BucketDeathTest, ByteOverflowStopsRatherThanWraps) {
    Bucket bucket = Bucket::opened(Date{0}, RateSample{Date{0}, 1, kMax - 10, 0});
    bucket.add(RateSample{Date{0}, 1, 10, 0});
    EXPECT_EQ(bucket.bytesIn, kMax);
    EXPECT_DEATH(bucket.add(RateSample{Date{0}, 1, 1, 0}), "overflow");
    Bucket out = Bucket::opened(Date{0}, RateSample{Date{0}, 1, 0, kMax});
    EXPECT_DEATH(out.add(RateSample{Date{0}, 1, 0, 1}), "overflow");
}

TEST(RateAggregateDeathTest, ByteOverflowStopsRatherThanWraps) {
    RateAggregate aggregate;
    aggregate.add(Bucket{Date{0}, 1, kMax, 0, 0, 0, 0, 0});
    EXPECT_DEATH(aggregate.add(Bucket{Date{1}, 1, 1, 0, 0, 0, 0, 0}), "overflow");
}

}  // namespace
}  // namespace netvane
