// What `netvane top` shows, as plain text: one row per interface with its
// current rates, totals since the view started and a sparkline of the last
// minute, busiest first, the primary interface marked. The terminal shell
// only puts these lines on the screen; everything decided here is tested
// without one.
#pragma once

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "netcore/history/rate_sample.h"
#include "support/date.h"
#include "views/sparkline.h"

namespace netvane::views {

// The seconds the sparkline and the ordering look back over.
inline constexpr double kTopWindow = 60;

struct TopInterface {
    std::string name;
    std::optional<RateSample> current;  // the latest reading's sample, if it gave one
    std::vector<RateSample> recent;     // samples of the window, from the history
    std::uint64_t totalIn = 0;          // since the view started
    std::uint64_t totalOut = 0;
};

struct TopRow {
    std::string name;
    bool primary = false;
    double rateIn = 0;
    double rateOut = 0;
    std::uint64_t totalIn = 0;
    std::uint64_t totalOut = 0;
    double windowRate = 0;  // average of in plus out over the window
    std::vector<RateSample> recent;
};

// Sorted by the window's average rate, then the current one, then name: the
// average moves slowly, so rows do not swap places at every redraw when two
// interfaces carry about the same traffic.
std::vector<TopRow> topRows(const std::vector<TopInterface>& interfaces, const std::set<std::string>& primaries,
                            Date now);

struct TopScreen {
    std::string clock;  // "14:03:22", the reading's local time
    double interval = 1;
    bool firstReading = false;  // no rates yet: they need two readings
    int width = 80;
    int height = 24;
};

// The screen's lines, none wider than the screen (a glyph is one column),
// no more of them than it is high; rows that do not fit are counted in the
// last line.
std::vector<std::string> topLines(const std::vector<TopRow>& rows, const TopScreen& screen, Date now,
                                  const SparkGlyphs& glyphs);

}  // namespace netvane::views
