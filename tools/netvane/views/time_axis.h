// Where the chart's time axis gets its ticks and what they say, in local
// time: ticks fall on round local clock times (every 15 minutes, every 6
// hours, at midnight, on Mondays), and a tick at local midnight names the day.
// The local offset is a parameter, so tests choose their own time zone and
// the command asks the system's.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "support/date.h"

namespace netvane::views {

// Seconds east of UTC of local time at a moment.
using UTCOffset = std::function<long(Date)>;

// The system's local offset (TZ and the zone database) at a moment.
long localUTCOffset(Date moment);
// "UTC", "UTC+01:00", "UTC-09:30".
std::string formatUTCOffset(long secondsEast);

struct TimeTick {
    Date time;
    std::string label;  // "14:30", "14:30:15" or "23 Nov"

    bool operator==(const TimeTick&) const = default;
};

// At most `maxTicks` ticks in [from, to], the step the smallest from a table
// of round clock steps (seconds to weeks) that fits. Nothing for an empty or
// reversed range.
std::vector<TimeTick> timeTicks(Date from, Date to, int maxTicks, const UTCOffset& offsetAt);

// "2026-11-23 14:30" in local time, for titles.
std::string formatLocalMinute(Date moment, const UTCOffset& offsetAt);

}  // namespace netvane::views
