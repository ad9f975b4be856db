#include "views/units.h"

#include <array>
#include <cmath>
#include <cstdio>

namespace netvane::views {
namespace {

constexpr std::array<const char*, 7> kByteUnits{"B", "KB", "MB", "GB", "TB", "PB", "EB"};

// Three significant digits in the largest unit that keeps the number at or
// above one; a value that rounds up to 1000 moves on to the next unit.
std::string human(double value, const char* suffix) {
    std::size_t unit = 0;
    while (unit + 1 < kByteUnits.size() && value >= 999.5) {
        value /= 1000;
        ++unit;
    }
    char text[48];
    const char* format = unit == 0 || value >= 99.95 ? "%.0f %s%s" : value >= 9.995 ? "%.1f %s%s" : "%.2f %s%s";
    std::snprintf(text, sizeof text, format, value, kByteUnits[unit], suffix);
    return text;
}

}  // namespace

std::string formatRate(double bytesPerSecond) {
    if (!std::isfinite(bytesPerSecond) || bytesPerSecond < 0) return "-";
    return human(bytesPerSecond, "/s");
}

std::string formatBytes(std::uint64_t bytes) { return human(static_cast<double>(bytes), ""); }

std::string RateScale::label(double value) const {
    char text[48];
    std::snprintf(text, sizeof text, "%.*f %s", decimals, value / unit, unitName);
    return text;
}

std::vector<double> RateScale::ticks() const {
    std::vector<double> values;
    if (!(step > 0)) return values;
    // Multiplying rather than adding keeps the last tick exactly on `top`.
    const auto count = static_cast<long>(std::llround(top / step));
    for (long i = 0; i <= count; ++i) values.push_back(static_cast<double>(i) * step);
    return values;
}

RateScale rateScale(double maxRate, int maxTicks) {
    if (maxTicks < 1) maxTicks = 1;
    if (!std::isfinite(maxRate) || maxRate <= 0) maxRate = 10;
    const double rough = maxRate / maxTicks;
    const double power = std::pow(10.0, std::floor(std::log10(rough)));
    double step = 10 * power;
    for (double factor : {1.0, 2.0, 5.0}) {
        if (factor * power >= rough * (1 - 1e-12)) {
            step = factor * power;
            break;
        }
    }
    RateScale scale;
    scale.step = step;
    scale.top = step * std::ceil(maxRate / step - 1e-9);
    static constexpr std::array<const char*, 6> kRateUnits{"B/s", "KB/s", "MB/s", "GB/s", "TB/s", "PB/s"};
    std::size_t unit = 0;
    while (unit + 1 < kRateUnits.size() && scale.top >= 1000 * scale.unit) {
        scale.unit *= 1000;
        ++unit;
    }
    scale.unitName = kRateUnits[unit];
    const double stepInUnit = step / scale.unit;
    scale.decimals = stepInUnit >= 1 ? 0 : static_cast<int>(std::ceil(-std::log10(stepInUnit) - 1e-9));
    return scale;
}

}  // namespace netvane::views
