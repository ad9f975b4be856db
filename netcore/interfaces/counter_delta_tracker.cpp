#include "netcore/interfaces/counter_delta_tracker.h"

namespace netvane {

std::optional<RateSample> CounterDeltaTracker::update(const std::string& key, const InterfaceCounters& counters,
                                                      Date at, double maxGap) {
    std::optional<RateSample> sample;
    auto [it, inserted] = last.try_emplace(key, Reading{at, counters});
    if (!inserted) {
        const Reading& previous = it->second;
        double dt = at.secondsSinceReference - previous.time.secondsSinceReference;
        if (dt > 0 && dt <= maxGap && counters.bytesIn >= previous.counters.bytesIn &&
            counters.bytesOut >= previous.counters.bytesOut) {
            sample = RateSample{at, dt, counters.bytesIn - previous.counters.bytesIn,
                                counters.bytesOut - previous.counters.bytesOut};
        }
        it->second = Reading{at, counters};
    }
    return sample;
}

void CounterDeltaTracker::retain(const std::unordered_set<std::string>& keys) {
    std::erase_if(last, [&](const auto& entry) { return !keys.contains(entry.first); });
}

}  // namespace netvane
