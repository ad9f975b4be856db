#include "netcore/history/rate_history.h"

#include <algorithm>
#include <cmath>

#include "support/fatal.h"

namespace netvane {
namespace {

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
    if (count < 0) fatal("recentSamples with a negative count");
    if (tiers.empty()) fatal("recentSamples on a history without tiers");
    const auto& raw = tiers[0].buckets;
    std::size_t n = std::min(static_cast<std::uint64_t>(count), static_cast<std::uint64_t>(raw.size()));
    std::vector<RateSample> samples;
    samples.reserve(n);
    for (auto it = raw.end() - static_cast<std::ptrdiff_t>(n); it != raw.end(); ++it) {
        samples.push_back(RateSample{it->start, it->seconds, it->bytesIn, it->bytesOut});
    }
    return samples;
}

double Tier::reachBack(double cutoff) const {
    const double oldest = buckets.front().start.secondsSinceReference;
    if (isRaw()) return std::max(oldest, cutoff);
    return std::max(oldest, granularity * std::ceil(cutoff / granularity));
}

RateAggregate RateHistory::aggregate(double period, Date now) const {
    const double cutoff = now.secondsSinceReference - period;
    const Tier* chosen = nullptr;
    double reach = 0;
    for (const Tier& tier : tiers) {
        if (tier.buckets.empty()) continue;
        // Strictly earlier only: on a tie the finer tier keeps the choice, and
        // a reach that is not a number never wins.
        const double candidate = tier.reachBack(cutoff);
        if (chosen == nullptr ? !std::isnan(candidate) : candidate < reach) {
            chosen = &tier;
            reach = candidate;
        }
    }
    RateAggregate result;
    if (chosen == nullptr) return result;
    const bool raw = chosen->isRaw();
    for (auto it = chosen->buckets.rbegin(); it != chosen->buckets.rend(); ++it) {
        const double start = it->start.secondsSinceReference;
        if (raw ? !(start > cutoff) : !(start >= cutoff)) break;
        result.add(*it);
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
