#include "netcore/history/rate_history.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace netvane {
namespace {

[[noreturn]] void programmingError(const char* what) {
    std::fprintf(stderr, "netvane: fatal: %s\n", what);
    std::abort();
}

std::vector<Tier> tierTable(const RateHistory::Retention& retention) {
    return {Tier{0, retention.raw, {}}, Tier{RateHistory::kMinute, retention.minute, {}},
            Tier{RateHistory::kHour, retention.hour, {}}};
}

}  // namespace

void Tier::add(const RateSample& sample) {
    double t = sample.end.secondsSinceReference;
    double slot = t;
    if (!isRaw()) {
        slot = granularity * std::floor(t / granularity);
        // Only the newest bucket is merged into; an older slot opens a new
        // bucket at the end, out of order, rather than searching back.
        if (!buckets.empty() && buckets.back().start.secondsSinceReference == slot) {
            buckets.back().add(sample);
            return;
        }
    }
    buckets.push_back(Bucket::opened(Date{slot}, sample));
}

void Tier::prune(Date now) {
    double cutoff = now.secondsSinceReference - retention;
    // Counting stops at the first bucket not known to end by the cutoff, so
    // a NaN never makes anything newer disappear.
    auto firstKept = std::find_if(buckets.begin(), buckets.end(),
                                  [&](const Bucket& bucket) { return !(endOf(bucket) <= cutoff); });
    buckets.erase(buckets.begin(), firstKept);
}

RateHistory::RateHistory(const Retention& retention) : tiers(tierTable(retention)) {}

void RateHistory::apply(const Retention& retention) {
    if (tiers.size() == 3) {
        tiers[0].retention = retention.raw;
        tiers[1].retention = retention.minute;
        tiers[2].retention = retention.hour;
    } else {
        tiers = tierTable(retention);
    }
}

void RateHistory::add(const RateSample& sample) {
    if (!(sample.duration > 0)) return;
    for (Tier& tier : tiers) tier.add(sample);
}

void RateHistory::prune(Date now) {
    for (Tier& tier : tiers) tier.prune(now);
}

std::vector<RateSample> RateHistory::recentSamples(std::int64_t count) const {
    if (count < 0) programmingError("recentSamples with a negative count");
    if (tiers.empty()) programmingError("recentSamples on a history without tiers");
    const auto& raw = tiers[0].buckets;
    std::size_t n = std::min(static_cast<std::uint64_t>(count), static_cast<std::uint64_t>(raw.size()));
    std::vector<RateSample> samples;
    samples.reserve(n);
    for (auto it = raw.end() - static_cast<std::ptrdiff_t>(n); it != raw.end(); ++it) {
        samples.push_back(RateSample{it->start, it->seconds, it->bytesIn, it->bytesOut});
    }
    return samples;
}

RateAggregate RateHistory::aggregate(double period, Date now) const {
    const double cutoff = now.secondsSinceReference - period;
    RateAggregate result;
    double upper = std::numeric_limits<double>::infinity();
    for (std::size_t i = 0; i < tiers.size(); ++i) {
        const Tier& tier = tiers[i];
        if (tier.buckets.empty()) continue;
        // The coarser tier takes over at a boundary of its own slots, at or
        // after the start of this tier's data, when that data starts late
        // enough for a whole coarse slot to fit before it. That boundary may
        // lie above the stretch already counted (this tier's data starts
        // inside the finer tier's first coarse slot, as in any history younger
        // than one coarse slot); the coarse slot below it would then count
        // that stretch again, so the handover moves down to the last coarse
        // boundary at or below what this tier was given.
        double lower = cutoff;
        double oldest = tier.buckets.front().start.secondsSinceReference;
        double coarse = i + 1 < tiers.size() ? tiers[i + 1].granularity : 0;
        if (coarse > 0 && coarse <= oldest - cutoff) {
            lower = coarse * std::ceil(oldest / coarse);
            if (lower > upper) lower = std::max(cutoff, coarse * std::floor(upper / coarse));
        }
        const bool raw = tier.isRaw();
        for (auto it = tier.buckets.rbegin(); it != tier.buckets.rend(); ++it) {
            double start = it->start.secondsSinceReference;
            if (tier.endOf(*it) > upper || (raw && start >= upper)) continue;
            if (start < lower || (raw && start <= cutoff)) break;
            result.add(*it);
        }
        if (lower <= cutoff) break;
        upper = lower;
    }
    return result;
}

bool RateHistory::isEmpty() const {
    return std::all_of(tiers.begin(), tiers.end(), [](const Tier& tier) { return tier.buckets.empty(); });
}

bool RateHistory::hasTraffic() const {
    return std::any_of(tiers.begin(), tiers.end(), [](const Tier& tier) {
        return std::any_of(tier.buckets.begin(), tier.buckets.end(),
                           [](const Bucket& b) { return b.bytesIn != 0 || b.bytesOut != 0; });
    });
}

}  // namespace netvane

using netvane::hashFields;

std::size_t std::hash<netvane::Tier>::operator()(const netvane::Tier& v) const noexcept {
    return hashFields(v.granularity, v.retention, v.buckets);
}

std::size_t std::hash<netvane::RateHistory::Retention>::operator()(
    const netvane::RateHistory::Retention& v) const noexcept {
    return hashFields(v.raw, v.minute, v.hour);
}
