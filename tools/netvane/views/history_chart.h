// Draws the rate histories of a file as one SVG document: a panel per
// interface with bytes in (filled) and out (line) per second over the period,
// on a rate axis in human units and a local-time axis. The same histories,
// period, end and time zone always give the same bytes.
//
// A period without traffic, or with a single reading, still gives a chart,
// one that says so. Each panel carries its interface, period and the rate at
// the top of its plot as data attributes, so a reader can turn the drawing
// back into numbers.
#pragma once

#include <string>

#include "netcore/history/history_store.h"
#include "support/date.h"
#include "views/time_axis.h"

namespace netvane::views {

struct ChartRequest {
    std::string source;  // what the histories came from, for the title
    double period = 86400;
    Date now;
    UTCOffset offsetAt = localUTCOffset;
};

std::string renderHistoryChart(const HistorySet& histories, const ChartRequest& request);

}  // namespace netvane::views
