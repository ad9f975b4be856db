#include "netcore/history/rate_sample.h"

#include <algorithm>

#include "support/fatal.h"

namespace netvane {

std::uint64_t checkedByteSum(std::uint64_t a, std::uint64_t b) {
    std::uint64_t sum = a + b;
    if (sum < a) {
        fatal("byte count overflow (%llu + %llu)", static_cast<unsigned long long>(a),
              static_cast<unsigned long long>(b));
    }
    return sum;
}

Bucket Bucket::opened(Date start, const RateSample& sample) {
    double rateIn = sample.rateIn();
    double rateOut = sample.rateOut();
    return Bucket{start, sample.duration, sample.bytesIn, sample.bytesOut, rateIn, rateIn, rateOut, rateOut};
}

void Bucket::add(const RateSample& sample) {
    seconds += sample.duration;
    bytesIn = checkedByteSum(bytesIn, sample.bytesIn);
    bytesOut = checkedByteSum(bytesOut, sample.bytesOut);
    double rateIn = sample.rateIn();
    double rateOut = sample.rateOut();
    minIn = std::min(rateIn, minIn);
    maxIn = std::max(maxIn, rateIn);
    minOut = std::min(rateOut, minOut);
    maxOut = std::max(maxOut, rateOut);
}

void RateAggregate::add(const Bucket& bucket) {
    seconds += bucket.seconds;
    bytesIn = checkedByteSum(bytesIn, bucket.bytesIn);
    bytesOut = checkedByteSum(bytesOut, bucket.bytesOut);
    minIn = std::min(minIn, bucket.minIn);
    maxIn = std::max(maxIn, bucket.maxIn);
    minOut = std::min(minOut, bucket.minOut);
    maxOut = std::max(maxOut, bucket.maxOut);
}

}  // namespace netvane

using netvane::hashFields;

std::size_t std::hash<netvane::RateSample>::operator()(const netvane::RateSample& v) const noexcept {
    return hashFields(v.end, v.duration, v.bytesIn, v.bytesOut);
}

std::size_t std::hash<netvane::Bucket>::operator()(const netvane::Bucket& v) const noexcept {
    return hashFields(v.start, v.seconds, v.bytesIn, v.bytesOut, v.minIn, v.maxIn, v.minOut, v.maxOut);
}

std::size_t std::hash<netvane::RateAggregate>::operator()(const netvane::RateAggregate& v) const noexcept {
    return hashFields(v.seconds, v.bytesIn, v.bytesOut, v.minIn, v.maxIn, v.minOut, v.maxOut);
}
