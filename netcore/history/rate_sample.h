// The three values of the rate history: a sample (bytes moved over a known
// interval), a bucket (the samples of one slot of a tier: totals and the
// extreme rates seen) and an aggregate (the summary of a period).
//
// Byte totals never wrap: an addition that would overflow 64 bits stops the
// process, since a wrapped total would silently turn a busy link idle.
// Plain values with memberwise equality and hashing.
#pragma once

#include <cstdint>
#include <limits>

#include "netcore/interfaces/hashing.h"
#include "support/date.h"

namespace netvane {

struct RateSample {
    Date end;
    double duration = 0;  // seconds
    std::uint64_t bytesIn = 0;
    std::uint64_t bytesOut = 0;

    // No guard against a zero duration: the history never accepts one.
    double rateIn() const { return static_cast<double>(bytesIn) / duration; }
    double rateOut() const { return static_cast<double>(bytesOut) / duration; }

    bool operator==(const RateSample&) const = default;
};

// Layout note: eight 8-byte fields in the order of the packed file coding, so
// a bucket costs exactly 64 bytes in memory as on disk.
struct Bucket {
    Date start;        // slot start; for the raw tier the end of its one sample
    double seconds = 0;  // sum of the samples' durations
    std::uint64_t bytesIn = 0;
    std::uint64_t bytesOut = 0;
    double minIn = 0;
    double maxIn = 0;
    double minOut = 0;
    double maxOut = 0;

    // A bucket holding just this sample.
    static Bucket opened(Date start, const RateSample& sample);
    void add(const RateSample& sample);

    bool operator==(const Bucket&) const = default;
};
static_assert(sizeof(Bucket) == 64);

struct RateAggregate {
    double seconds = 0;  // covered time
    std::uint64_t bytesIn = 0;
    std::uint64_t bytesOut = 0;
    double minIn = std::numeric_limits<double>::infinity();
    double maxIn = 0;  // the maximums start at zero, not at minus infinity
    double minOut = std::numeric_limits<double>::infinity();
    double maxOut = 0;

    bool isEmpty() const { return seconds == 0; }
    double averageIn() const { return seconds == 0 ? 0 : static_cast<double>(bytesIn) / seconds; }
    double averageOut() const { return seconds == 0 ? 0 : static_cast<double>(bytesOut) / seconds; }

    // Takes a whole bucket into the summary.
    void add(const Bucket& bucket);

    bool operator==(const RateAggregate&) const = default;
};

// a + b, or a fatal error naming what overflowed.
std::uint64_t checkedByteSum(std::uint64_t a, std::uint64_t b);

}  // namespace netvane

NETVANE_DECLARE_HASH(netvane::RateSample);
NETVANE_DECLARE_HASH(netvane::Bucket);
NETVANE_DECLARE_HASH(netvane::RateAggregate);
