// The traffic history of one interface at three resolutions: every sample as
// it came (raw), one bucket per minute and one per hour, each tier with its
// own retention. Every accepted sample goes into all tiers.
//
// `aggregate` counts every stored sample of the period once. Each tier holds
// every sample from its oldest bucket on, and the totals, covered seconds and
// extreme rates of a set of samples are the same whichever tier they are read
// from; tiers differ only in how close to the cutoff their whole buckets
// reach. So the aggregate reads the one tier that reaches furthest back (the
// finer on a tie): the raw tier from just after the cutoff, or a coarser one
// from its first slot that starts at or after the cutoff, each no earlier
// than its oldest bucket. Stitching a finer tier's recent stretch to a
// coarser tier's older one would give the same sums, except where the coarse
// slot at the hand-over mixes samples the finer tier has pruned with samples
// it still holds: there no stitch counts both stretches once.
// Left out are only the samples that every tier holds in a bucket beginning
// before the cutoff; they end less than one slot of the finest tier holding
// the cutoff after it, and where the raw tier holds it nothing is left out.
// Samples that came out of order, or tiers that disagree (another writer's
// file), may leave more out, but no sample is ever counted twice.
//
// A plain value; its owner serialises access. Byte-count overflow is fatal.
//
// Coding (the history file's shape): {"tiers": [{"granularity": real,
// "retention": real, "buckets": data}, ...]}, where the bucket data packs,
// oldest first, eight little-endian doubles per bucket: start, seconds,
// bytesIn, bytesOut, minIn, maxIn, minOut, maxOut (64 bytes per bucket).
//
// Bucket data whose length is not a multiple of 64 bytes is rejected as
// corrupt rather than read up to its last whole bucket: we never write such
// data, so it comes from a writer with another layout, and grouping its
// doubles by eight would misread every bucket, not only the last one. Byte
// totals that are negative, not finite or beyond 64 bits are rejected too
// (fractions are truncated), and so is a history whose buckets, all tiers
// together, hold more than 2^64 - 1 bytes in either direction: summing them
// is fatal, and a file is input, so it is refused before anyone counts.
#pragma once

#include <cstdint>
#include <deque>
#include <span>
#include <vector>

#include "netcore/history/rate_sample.h"
#include "support/plist/value.h"
#include "support/result.h"

namespace netvane {

inline constexpr const char* kHistoryErrorDomain = "netvane.history";
inline constexpr std::int64_t kHistoryCorruptError = 1;

// Size of one packed bucket in the coding.
inline constexpr std::size_t kPackedBucketSize = 64;

struct Tier {
    double granularity = 0;  // seconds per slot; 0 = raw, one bucket per sample
    double retention = 0;    // seconds, measured back from the current time
    // Oldest first. A deque: pruning pops the front in O(1), and growth never
    // reserves more than a block of spare room.
    std::deque<Bucket> buckets;

    bool isRaw() const { return granularity == 0; }
    // The time a bucket's slot ends (its start for raw buckets).
    double endOf(const Bucket& bucket) const { return bucket.start.secondsSinceReference + granularity; }

    void add(const RateSample& sample);
    void prune(Date now);
    // The earliest moment from which this tier (with buckets) holds whole
    // buckets after `cutoff`.
    double reachBack(double cutoff) const;

    // Without buckets, an empty Data stands in for the packed buckets, for a
    // writer that packs them on their way out (packBuckets).
    plist::Value encode(bool withBuckets = true) const;
    static Result<Tier> decode(const plist::Value& value);

    bool operator==(const Tier&) const = default;
};

// The packed form of the buckets from byte `offset` of it on, into out;
// offset and out's size are whole buckets.
void packBuckets(const std::deque<Bucket>& buckets, std::size_t offset, std::span<std::uint8_t> out);

struct RateHistory {
    struct Retention {
        double raw = 0;
        double minute = 0;
        double hour = 0;

        bool operator==(const Retention&) const = default;
    };

    // Granularities of the tiers that RateHistory(retention) builds.
    static constexpr double kMinute = 60;
    static constexpr double kHour = 3600;

    std::vector<Tier> tiers;

    RateHistory() = default;  // no tiers: what a decoder starts from
    explicit RateHistory(const Retention& retention);

    // With exactly three tiers, only their retentions change (the next prune
    // enforces them); any other shape is replaced by fresh, empty tiers.
    void apply(const Retention& retention);
    // Samples with a duration that is not positive are dropped.
    void add(const RateSample& sample);
    void prune(Date now);
    // The newest `count` raw buckets as samples, oldest first. A negative
    // count or a history without tiers stops the program.
    std::vector<RateSample> recentSamples(std::int64_t count) const;
    RateAggregate aggregate(double period, Date now) const;

    bool isEmpty() const;
    bool hasTraffic() const;

    plist::Value encode(bool withBuckets = true) const;
    static Result<RateHistory> decode(const plist::Value& value);

    bool operator==(const RateHistory&) const = default;
};

}  // namespace netvane

NETVANE_DECLARE_HASH(netvane::Tier);
NETVANE_DECLARE_HASH(netvane::RateHistory::Retention);
