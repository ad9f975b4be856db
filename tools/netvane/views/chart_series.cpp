#include "views/chart_series.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace netvane::views {
namespace {

// A bucket's place on the time line for stitching: the sample end for a raw
// bucket, the slot start for a coarser one. Both tiers file a sample under
// the slot its end falls into, which is what makes the hand-over exact.
double keyOf(const Bucket& bucket) { return bucket.start.secondsSinceReference; }

ChartStep stepOf(const Tier& tier, const Bucket& bucket) {
    const double start = bucket.start.secondsSinceReference;
    ChartStep step;
    step.from = tier.isRaw() ? start - bucket.seconds : start;
    step.to = tier.isRaw() ? start : start + tier.granularity;
    step.seconds = bucket.seconds;
    step.bytesIn = bucket.bytesIn;
    step.bytesOut = bucket.bytesOut;
    step.granularity = tier.granularity;
    step.maxIn = bucket.maxIn;
    step.maxOut = bucket.maxOut;
    return step;
}

// Whether aggregate would count this bucket for the cutoff: a raw sample
// ending after it, a coarser slot starting at or after it.
bool inPeriod(const Tier& tier, const Bucket& bucket, double cutoff) {
    return tier.isRaw() ? keyOf(bucket) > cutoff : keyOf(bucket) >= cutoff;
}

}  // namespace

void keepBefore(RateHistory& history, Date now) {
    for (Tier& tier : history.tiers) {
        std::erase_if(tier.buckets, [&](const Bucket& bucket) {
            return !(stepOf(tier, bucket).from < now.secondsSinceReference);
        });
    }
}

std::vector<ChartStep> stitchedSteps(const RateHistory& history, double period, Date now) {
    const double cutoff = now.secondsSinceReference - period;
    std::vector<const Tier*> tiers;
    for (const Tier& tier : history.tiers) {
        if (!tier.buckets.empty()) tiers.push_back(&tier);
    }
    // Stretches from the newest (finest tier) back; reversed at the end.
    std::vector<std::vector<ChartStep>> stretches;
    double upper = std::numeric_limits<double>::infinity();
    for (std::size_t i = 0; i < tiers.size();) {
        const Tier& tier = *tiers[i];
        const double reach = tier.reachBack(cutoff);
        double oldest = std::numeric_limits<double>::infinity();
        for (const Bucket& bucket : tier.buckets) oldest = std::min(oldest, keyOf(bucket));
        // Hand over to the first coarser tier that reaches further back and
        // has a slot boundary between this tier's oldest bucket and the top
        // of this tier's stretch; the coarser tier's slots wholly below that
        // boundary hold exactly the samples this tier leaves to it. Without
        // such a tier (a history younger than one coarse slot), this tier
        // draws its stretch down to the cutoff alone: a coarse slot that also
        // holds the newer samples would count them twice.
        std::size_t next = i + 1;
        double lower = -std::numeric_limits<double>::infinity();
        for (; next < tiers.size(); ++next) {
            if (!(tiers[next]->reachBack(cutoff) < reach)) continue;
            const double g = tiers[next]->granularity;
            const double handOver = g * std::ceil(oldest / g);
            if (handOver <= upper) {
                lower = handOver;
                break;
            }
        }
        std::vector<ChartStep> stretch;
        for (const Bucket& bucket : tier.buckets) {
            const double key = keyOf(bucket);
            if (!inPeriod(tier, bucket, cutoff) || key < lower || key >= upper) continue;
            ChartStep step = stepOf(tier, bucket);
            if (step.from >= now.secondsSinceReference) continue;
            stretch.push_back(step);
        }
        // Samples that came out of order are drawn in time order.
        std::stable_sort(stretch.begin(), stretch.end(),
                         [](const ChartStep& a, const ChartStep& b) { return a.to < b.to; });
        stretches.push_back(std::move(stretch));
        if (next == tiers.size()) break;
        upper = lower;
        i = next;
    }
    std::vector<ChartStep> steps;
    for (auto it = stretches.rbegin(); it != stretches.rend(); ++it) steps.insert(steps.end(), it->begin(), it->end());
    return steps;
}

std::vector<ChartStep> mergeSteps(const std::vector<ChartStep>& steps, double minWidth) {
    std::vector<ChartStep> merged;
    bool open = false;  // whether merged.back() may still grow
    for (const ChartStep& step : steps) {
        if (open) {
            ChartStep& current = merged.back();
            const bool joins = step.granularity == current.granularity &&
                               std::abs(step.from - current.to) <= kStepJoinTolerance;
            if (joins && current.to - current.from < minWidth) {
                current.to = step.to;
                current.seconds += step.seconds;
                current.bytesIn = checkedByteSum(current.bytesIn, step.bytesIn);
                current.bytesOut = checkedByteSum(current.bytesOut, step.bytesOut);
                current.maxIn = std::max(current.maxIn, step.maxIn);
                current.maxOut = std::max(current.maxOut, step.maxOut);
                continue;
            }
        }
        merged.push_back(step);
        open = true;
    }
    return merged;
}

}  // namespace netvane::views
