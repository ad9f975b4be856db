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
    for (const RateSample& sample : samples) {
        const double offset = sample.end.secondsSinceReference - start;
        if (!(offset > 0) || offset > window || !(sample.duration > 0)) continue;
        // (start, now] in equal slices; a sample ending on a slice's upper
        // edge belongs to that slice.
        // Multiplying first keeps whole-second ends on their own columns.
        auto column = static_cast<std::size_t>(std::ceil(offset * static_cast<double>(columns) / window)) - 1;
        column = std::min(column, columns - 1);
        bytes[column] += static_cast<double>(sample.bytesIn) + static_cast<double>(sample.bytesOut);
        seconds[column] += sample.duration;
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
