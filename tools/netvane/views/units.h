// Human units for rates and byte counts, and the round-numbered scales that
// the chart's rate axis is drawn on. Decimal units (1 KB = 1000 B), as link
// speeds and traffic meters count. Pure functions, no state.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace netvane::views {

// "0 B/s", "812 B/s", "1.50 KB/s", "12.3 MB/s", "734 GB/s"; three significant
// digits at most. Negative or non-finite rates print as "-".
std::string formatRate(double bytesPerSecond);
// "0 B", "999 B", "1.21 MB", "45.0 GB": the same rounding as formatRate.
std::string formatBytes(std::uint64_t bytes);

// An axis from 0 to `top` in steps of `step` (1, 2 or 5 times a power of
// ten), labelled in one unit so that every label reads alike.
struct RateScale {
    double top = 0;
    double step = 0;
    double unit = 1;         // bytes per second of one `unitName`
    const char* unitName = "B/s";
    int decimals = 0;        // digits after the point that tell the ticks apart

    // "1.5 MB/s" for 1500000 on a MB/s scale with one decimal.
    std::string label(double value) const;
    std::vector<double> ticks() const;  // 0, step, ..., top
};

// The smallest round scale holding `maxRate` in at most `maxTicks` steps. An
// idle or unusable maximum still gets a scale (0 to 10 B/s), so an empty
// panel keeps its axis.
RateScale rateScale(double maxRate, int maxTicks);

}  // namespace netvane::views
