#include "views/sparkline.h"

#include <algorithm>
#include <cmath>

namespace netvane::views {

SparkGlyphs SparkGlyphs::blocks() {
    return {{"\u2581", "\u2582", "\u2583", "\u2584", "\u2585", "\u2586", "\u2587", "\u2588"}};
}

SparkGlyphs SparkGlyphs::ascii() { return {{"_", ".", ":", "-", "=", "+", "*", "#"}}; }

std::vector<std::optional<double>> binRates(const std::vector<RateSample>& samples, Date now, double window,
                                            std::size_t columns) {
    std::vector<std::optional<double>> values(columns);
    if (columns == 0 || !(window > 0)) return values;
    std::vector<double> bytes(columns, 0);
    std::vector<double> seconds(columns, 0);
    const double start = now.secondsSinceReference - window;
    const double width = window / static_cast<double>(columns);
    for (const RateSample& sample : samples) {
        if (!(sample.duration > 0)) continue;
        // Each sample is spread over the columns its interval covers, in
        // proportion: readings that drift against the columns' edges then
        // leave no column empty and none doubled.
        const double from = std::max(sample.end.secondsSinceReference - sample.duration, start) - start;
        const double to = std::min(sample.end.secondsSinceReference, now.secondsSinceReference) - start;
        if (!(to > from)) continue;
        const double total = static_cast<double>(sample.bytesIn) + static_cast<double>(sample.bytesOut);
        const auto first = static_cast<std::size_t>(std::floor(from / width));
        for (std::size_t column = first; column < columns && static_cast<double>(column) * width < to; ++column) {
            const double overlap = std::min(to, static_cast<double>(column + 1) * width) -
                                   std::max(from, static_cast<double>(column) * width);
            if (overlap <= 0) continue;
            bytes[column] += total * overlap / sample.duration;
            seconds[column] += overlap;
        }
    }
    for (std::size_t i = 0; i < columns; ++i) {
        if (seconds[i] > 0) values[i] = bytes[i] / seconds[i];
    }
    return values;
}

std::string sparkline(const std::vector<std::optional<double>>& values, const SparkGlyphs& glyphs) {
    double peak = 0;
    for (const auto& value : values) {
        if (value && std::isfinite(*value)) peak = std::max(peak, *value);
    }
    const auto top = static_cast<double>(glyphs.levels.size() - 1);
    std::string line;
    for (const auto& value : values) {
        if (!value) {
            line += ' ';
        } else if (!(*value > 0) || !(peak > 0) || !std::isfinite(*value)) {
            line += glyphs.levels.front();
        } else {
            // Levels 1 to top for any traffic at all: the smallest trickle
            // still rises above the idle glyph.
            const auto level = static_cast<std::size_t>(std::clamp(std::ceil(*value / peak * top), 1.0, top));
            line += glyphs.levels[level];
        }
    }
    return line;
}

}  // namespace netvane::views
