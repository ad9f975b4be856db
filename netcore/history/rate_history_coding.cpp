// The keyed coding of tiers and histories, with the packed bucket data.
#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>

#include "netcore/history/rate_history.h"

namespace netvane {
namespace {

constexpr std::size_t kDoublesPerBucket = kPackedBucketSize / sizeof(double);

Error corrupt(std::string message) { return Error{kHistoryErrorDomain, kHistoryCorruptError, std::move(message)}; }

void storeLittleEndian(double value, std::uint8_t* out) {
    std::uint64_t bits = std::bit_cast<std::uint64_t>(value);
    if constexpr (std::endian::native == std::endian::little) {
        std::memcpy(out, &bits, sizeof bits);
    } else {
        for (int i = 0; i < 8; ++i) out[i] = static_cast<std::uint8_t>(bits >> (8 * i));
    }
}

double loadLittleEndian(const std::uint8_t* in) {
    std::uint64_t bits = 0;
    if constexpr (std::endian::native == std::endian::little) {
        std::memcpy(&bits, in, sizeof bits);
    } else {
        for (int i = 0; i < 8; ++i) bits |= static_cast<std::uint64_t>(in[i]) << (8 * i);
    }
    return std::bit_cast<double>(bits);
}

// Totals travel as doubles; converting back is only defined inside the
// 64-bit range. 2^64 itself is what the largest totals round to on writing.
bool byteCountFromDouble(double value, std::uint64_t& out) {
    constexpr double kTwoTo64 = 18446744073709551616.0;
    if (!(value >= 0) || value > kTwoTo64) return false;
    out = value == kTwoTo64 ? std::numeric_limits<std::uint64_t>::max() : static_cast<std::uint64_t>(value);
    return true;
}

Result<double> decodeDouble(const plist::Value& dict, const char* key) {
    const plist::Value* value = dict.find(key);
    if (!value) return corrupt(std::string("missing key \"") + key + "\"");
    if (auto real = value->real()) return *real;
    if (auto integer = value->int64()) return static_cast<double>(*integer);
    if (auto integer = value->uint64()) return static_cast<double>(*integer);
    return corrupt(std::string("\"") + key + "\" is not a number");
}

// The byte totals of everything decoded so far. Whatever a reader sums (an
// aggregate reads a stretch of one tier; a chart may join stretches of
// several) fits in 64 bits when all of it does. Overflow while counting
// stops the process, so a file must not carry it in. Counted while the
// buckets are read: a second pass over them costs more than the sums.
struct Totals {
    std::uint64_t in = 0;
    std::uint64_t out = 0;
    bool overflowed = false;

    void add(std::uint64_t bytesIn, std::uint64_t bytesOut) {
        overflowed |= __builtin_add_overflow(in, bytesIn, &in);
        overflowed |= __builtin_add_overflow(out, bytesOut, &out);
    }
};

Result<Tier> decodeTier(const plist::Value& value, Totals& totals);

}  // namespace

void packBuckets(const std::deque<Bucket>& buckets, std::size_t offset, std::span<std::uint8_t> out) {
    const std::size_t first = offset / kPackedBucketSize;
    const std::size_t count = std::min(out.size() / kPackedBucketSize, buckets.size() - std::min(first, buckets.size()));
    // A deque keeps its buckets in small blocks spread over the heap, which
    // defeats the hardware's prefetching; the next blocks are asked for ahead.
    constexpr std::size_t kAhead = 16;
    for (std::size_t i = 0; i < count; ++i) {
        if (i + kAhead < count) __builtin_prefetch(&buckets[first + i + kAhead]);
        const Bucket& b = buckets[first + i];
        const std::size_t at = i * kPackedBucketSize;
        const double fields[kDoublesPerBucket] = {b.start.secondsSinceReference, b.seconds,
                                                  static_cast<double>(b.bytesIn), static_cast<double>(b.bytesOut),
                                                  b.minIn, b.maxIn, b.minOut, b.maxOut};
        for (std::size_t i = 0; i < kDoublesPerBucket; ++i) storeLittleEndian(fields[i], &out[at + i * sizeof(double)]);
    }
}

plist::Value Tier::encode(bool withBuckets) const {
    plist::Data packed;
    if (withBuckets) {
        packed.resize(buckets.size() * kPackedBucketSize);
        packBuckets(buckets, 0, packed);
    }
    plist::Dictionary dict;
    dict.reserve(3);
    dict.append("granularity", granularity);
    dict.append("retention", retention);
    dict.append("buckets", std::move(packed));
    return dict;
}

Result<Tier> Tier::decode(const plist::Value& value) {
    Totals ignored;
    return decodeTier(value, ignored);
}

namespace {

Result<Tier> decodeTier(const plist::Value& value, Totals& totals) {
    if (!value.dictionary()) return corrupt("a tier is not a dictionary");
    Tier tier;
    auto granularity = decodeDouble(value, "granularity");
    if (!granularity) return granularity.error();
    auto retention = decodeDouble(value, "retention");
    if (!retention) return retention.error();
    tier.granularity = *granularity;
    tier.retention = *retention;

    const plist::Value* bucketsValue = value.find("buckets");
    if (!bucketsValue) return corrupt("missing key \"buckets\"");
    const plist::Data* packed = bucketsValue->data();
    if (!packed) return corrupt("\"buckets\" is not data");
    if (packed->size() % kPackedBucketSize != 0) {
        return corrupt("bucket data of " + std::to_string(packed->size()) + " bytes is not a whole number of buckets");
    }
    const std::uint8_t* in = packed->data();
    const std::uint8_t* end = in + packed->size();
    for (; in != end; in += kPackedBucketSize) {
        double f[kDoublesPerBucket];
        for (std::size_t i = 0; i < kDoublesPerBucket; ++i) f[i] = loadLittleEndian(in + i * sizeof(double));
        Bucket bucket{Date{f[0]}, f[1], 0, 0, f[4], f[5], f[6], f[7]};
        if (!byteCountFromDouble(f[2], bucket.bytesIn) || !byteCountFromDouble(f[3], bucket.bytesOut)) {
            return corrupt("a bucket's byte count is not a 64-bit count");
        }
        totals.add(bucket.bytesIn, bucket.bytesOut);
        tier.buckets.push_back(bucket);
    }
    return tier;
}

}  // namespace

plist::Value RateHistory::encode(bool withBuckets) const {
    plist::Array encoded;
    encoded.reserve(tiers.size());
    for (const Tier& tier : tiers) encoded.push_back(tier.encode(withBuckets));
    plist::Dictionary dict;
    dict.append("tiers", std::move(encoded));
    return dict;
}

Result<RateHistory> RateHistory::decode(const plist::Value& value) {
    if (!value.dictionary()) return corrupt("a history is not a dictionary");
    const plist::Value* tiersValue = value.find("tiers");
    if (!tiersValue) return corrupt("missing key \"tiers\"");
    const plist::Array* encoded = tiersValue->array();
    if (!encoded) return corrupt("\"tiers\" is not an array");
    RateHistory history;
    history.tiers.reserve(encoded->size());
    Totals totals;
    for (const plist::Value& element : *encoded) {
        auto tier = decodeTier(element, totals);
        if (!tier) return tier.error();
        history.tiers.push_back(std::move(*tier));
    }
    if (totals.overflowed) return corrupt("the byte counts of its buckets add up to more than 64 bits");
    return history;
}

}  // namespace netvane
