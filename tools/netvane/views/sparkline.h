// Sparklines: a row of block glyphs whose heights follow a series of rates,
// and the binning of recent samples into that row's columns. Pure functions.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "netcore/history/rate_sample.h"
#include "support/date.h"

namespace netvane::views {

// The glyphs from the lowest to the highest level. The first stands for an
// idle column (zero), so idle and a trickle look different; a column without
// any reading is a space.
struct SparkGlyphs {
    std::vector<std::string> levels;

    static SparkGlyphs blocks();  // "▁▂▃▄▅▆▇█" for terminals that speak UTF-8
    static SparkGlyphs ascii();   // "_.:-=+*#" for those that do not
};

// The average total rate (in plus out) over each of `columns` equal slices
// of the window ending now, oldest first, from the samples' intervals that
// overlap it; nothing where no sample covers any of a slice.
std::vector<std::optional<double>> binRates(const std::vector<RateSample>& samples, Date now, double window,
                                            std::size_t columns);

// One glyph per value, scaled to the largest value of the row.
std::string sparkline(const std::vector<std::optional<double>>& values, const SparkGlyphs& glyphs);

}  // namespace netvane::views
