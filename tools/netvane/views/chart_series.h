// The stretches of traffic a chart draws for one interface over a period,
// taken from the history's tiers the way its aggregate counts them: the
// finest tier for the recent stretch, each coarser tier for the stretch
// before the finer one begins, handing over at a boundary of the coarser
// tier's slots so no sample is drawn twice. Over any stretch that begins at a
// step boundary, the steps' byte totals and covered seconds add up to what
// `RateHistory::aggregate` reports for it, wherever every tier holds every
// sample since its oldest bucket (which is how the history fills them).
//
// A step spans the time its samples measured: a raw bucket from its sample's
// start to its end, a coarser bucket its whole slot. Its rate is the average
// while measured (bytes over covered seconds), which is also the aggregate's.
#pragma once

#include <cstdint>
#include <vector>

#include "netcore/history/rate_history.h"
#include "support/date.h"

namespace netvane::views {

// Readings taken by one program at a fixed interval join end to start
// exactly; steps further apart than this are a pause, drawn as a gap.
inline constexpr double kStepJoinTolerance = 1e-3;

struct ChartStep {
    double from = 0;  // seconds since the reference date
    double to = 0;
    double seconds = 0;  // covered seconds (less than to - from where readings paused)
    std::uint64_t bytesIn = 0;
    std::uint64_t bytesOut = 0;
    double granularity = 0;  // of the tier it came from; 0 for raw samples
    double maxIn = 0;        // the highest rates of the samples it holds
    double maxOut = 0;

    double rateIn() const { return seconds > 0 ? static_cast<double>(bytesIn) / seconds : 0; }
    double rateOut() const { return seconds > 0 ? static_cast<double>(bytesOut) / seconds : 0; }

    bool operator==(const ChartStep&) const = default;
};

// One step per bucket counted over (now - period, now], oldest first. Buckets
// from after `now` (a clock that ran ahead, an earlier `now` asked for) lie
// outside the chart and are left out. Where a coarser tier hands over to raw
// samples, the first sample may reach back into the last coarse slot (it
// ended after the slot did): the two overlap by less than one sample.
std::vector<ChartStep> stitchedSteps(const RateHistory& history, double period, Date now);

// Forgets every bucket whose stretch begins at or after `now` (a clock that
// ran ahead, an earlier `now` asked for), so that what is counted or drawn
// for a period ending at `now` was measured before it. A raw sample that
// spans `now` stays, as a coarser slot that does: its share after `now`
// cannot be told apart.
void keepBefore(RateHistory& history, Date now);

// Neighbouring steps of one tier joined until each spans at least
// `minWidth` seconds, so a long period draws a few hundred steps rather than
// one per sample. A pause in the readings or a hand-over between tiers is
// never bridged, so a step boundary stays a bucket boundary.
std::vector<ChartStep> mergeSteps(const std::vector<ChartStep>& steps, double minWidth);

}  // namespace netvane::views
