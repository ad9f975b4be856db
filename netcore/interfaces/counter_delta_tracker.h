// Turns successive cumulative counter readings into rate samples, per key.
//
// A sample comes only from two comparable readings: time moved forward by at
// most maxGap and neither byte counter went down. A decrease is a reset (the
// interface was re-created), never a wrap to bridge, so a reset costs exactly
// one interval. The caller supplies the time; nothing here reads a clock.
// A plain value: a caller sharing one across threads serialises access.
#pragma once

#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "netcore/history/rate_sample.h"
#include "netcore/interfaces/interface_snapshot.h"
#include "support/date.h"

namespace netvane {

struct CounterDeltaTracker {
    struct Reading {
        Date time;
        InterfaceCounters counters;
    };

    std::unordered_map<std::string, Reading> last;

    // Always remembers this reading, whether or not it yields a sample.
    std::optional<RateSample> update(const std::string& key, const InterfaceCounters& counters, Date at,
                                     double maxGap);
    // Forgets every key not in keys; a key that returns later starts afresh.
    void retain(const std::unordered_set<std::string>& keys);
};

}  // namespace netvane
