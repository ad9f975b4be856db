#include "netcore/interfaces/counter_delta_tracker.h"

#include <gtest/gtest.h>

namespace netvane {
namespace {

InterfaceCounters counters(std::uint64_t in, std::uint64_t out) {
    InterfaceCounters c;
    c.bytesIn = in;
    c.bytesOut = out;
    return c;
}

constexpr double kMaxGap = 10;

TEST(CounterDeltaTracker, FirstReadingOnlyRemembers) {
    CounterDeltaTracker tracker;
    EXPECT_EQ(tracker.update("en0", counters(1000, 500), Date{100}, kMaxGap), std::nullopt);
    ASSERT_TRUE(tracker.last.contains("en0"));
    EXPECT_EQ(tracker.last["en0"].time, Date{100});
}

TEST(CounterDeltaTracker, DeltaOfTheByteCountersOverTheInterval) {
    CounterDeltaTracker tracker;
    (void)tracker.update("en0", counters(1000, 500), Date{100}, kMaxGap);
    auto sample = tracker.update("en0", counters(3000, 500), Date{101}, kMaxGap);
    EXPECT_EQ(sample, (RateSample{Date{101}, 1, 2000, 0}));
}

TEST(CounterDeltaTracker, KeysAreIndependent) {
    CounterDeltaTracker tracker;
    (void)tracker.update("en0", counters(0, 0), Date{100}, kMaxGap);
    EXPECT_EQ(tracker.update("en1", counters(50, 50), Date{101}, kMaxGap), std::nullopt);
    EXPECT_EQ(tracker.update("en0", counters(50, 70), Date{102}, kMaxGap), (RateSample{Date{102}, 2, 50, 70}));
}

TEST(CounterDeltaTracker, ClockThatDoesNotAdvanceYieldsNothingButReplaces) {
    CounterDeltaTracker tracker;
    (void)tracker.update("en0", counters(1000, 0), Date{100}, kMaxGap);
    EXPECT_EQ(tracker.update("en0", counters(2000, 0), Date{100}, kMaxGap), std::nullopt);
    EXPECT_EQ(tracker.update("en0", counters(2500, 0), Date{99}, kMaxGap), std::nullopt);
    EXPECT_EQ(tracker.update("en0", counters(2600, 0), Date{101}, kMaxGap), (RateSample{Date{101}, 2, 100, 0}));
}

TEST(CounterDeltaTracker, GapOfExactlyMaxGapStillCounts) {
    CounterDeltaTracker tracker;
    (void)tracker.update("en0", counters(0, 0), Date{100}, kMaxGap);
    EXPECT_NE(tracker.update("en0", counters(10, 0), Date{110}, kMaxGap), std::nullopt);
    EXPECT_EQ(tracker.update("en0", counters(20, 0), Date{120.001}, kMaxGap), std::nullopt);
    EXPECT_EQ(tracker.update("en0", counters(30, 0), Date{121}, kMaxGap), (RateSample{Date{121}, 121 - 120.001, 10, 0}));
}

TEST(CounterDeltaTracker, ResetLosesExactlyOneInterval) {
    CounterDeltaTracker tracker;
    (void)tracker.update("en0", counters(5000, 800), Date{100}, kMaxGap);
    EXPECT_EQ(tracker.update("en0", counters(100, 900), Date{101}, kMaxGap), std::nullopt);
    EXPECT_EQ(tracker.update("en0", counters(400, 950), Date{102}, kMaxGap), (RateSample{Date{102}, 1, 300, 50}));
    EXPECT_EQ(tracker.update("en0", counters(500, 10), Date{103}, kMaxGap), std::nullopt) << "bytesOut went down";
}

TEST(CounterDeltaTracker, OnlyByteCountersAreCompared) {
    CounterDeltaTracker tracker;
    InterfaceCounters first = counters(100, 100);
    first.packetsIn = 50;
    (void)tracker.update("en0", first, Date{100}, kMaxGap);
    InterfaceCounters second = counters(200, 100);
    second.packetsIn = 1;  // a lower packet count is no reset
    EXPECT_EQ(tracker.update("en0", second, Date{101}, kMaxGap), (RateSample{Date{101}, 1, 100, 0}));
    EXPECT_EQ(tracker.last["en0"].counters, second);
}

TEST(CounterDeltaTracker, RetainForgetsOtherKeys) {
    CounterDeltaTracker tracker;
    (void)tracker.update("en0", counters(0, 0), Date{100}, kMaxGap);
    (void)tracker.update("en1", counters(0, 0), Date{100}, kMaxGap);
    tracker.retain({"en1", "en7"});
    EXPECT_FALSE(tracker.last.contains("en0"));
    EXPECT_EQ(tracker.update("en0", counters(10, 0), Date{101}, kMaxGap), std::nullopt);
    EXPECT_EQ(tracker.update("en1", counters(10, 0), Date{101}, kMaxGap), (RateSample{Date{101}, 1, 10, 0}));
}

}  // namespace
}  // namespace netvane
