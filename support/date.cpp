#include "support/date.h"

#include <chrono>
#include <cmath>
#include <cstdio>

namespace netvane {
namespace {

constexpr std::int64_t kSecondsPerDay = 86400;
// Days from 1970-01-01 to 2001-01-01.
constexpr std::int64_t kReferenceDays = 11323;

// Howard Hinnant's days_from_civil / civil_from_days, valid for any proleptic
// Gregorian date.
std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) {
    y -= m <= 2;
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const auto yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

struct Civil {
    std::int64_t year;
    unsigned month, day;
};

Civil civilFromDays(std::int64_t z) {
    z += 719468;
    const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const auto doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    const unsigned d = doy - (153 * mp + 2) / 5 + 1;
    const unsigned m = mp < 10 ? mp + 3 : mp - 9;
    return {static_cast<std::int64_t>(yoe) + era * 400 + (m <= 2), m, d};
}

std::string format(Date date, bool withMillis) {
    double seconds = date.secondsSinceReference;
    if (!std::isfinite(seconds)) return "invalid-date";
    // Clamp to the years we can print with four digits, -9999 to 9999.
    static const double earliest = static_cast<double>((daysFromCivil(-9999, 1, 1) - kReferenceDays) * kSecondsPerDay);
    static const double latest = static_cast<double>((daysFromCivil(10000, 1, 1) - kReferenceDays) * kSecondsPerDay);
    seconds = std::fmax(std::fmin(seconds, std::nextafter(latest, 0.0)), earliest);
    const double wholeSeconds = std::floor(seconds);
    auto millis = static_cast<int>(std::floor((seconds - wholeSeconds) * 1000.0));
    if (millis > 999) millis = 999;
    const auto total = static_cast<std::int64_t>(wholeSeconds);
    std::int64_t days = total / kSecondsPerDay;
    std::int64_t rest = total % kSecondsPerDay;
    if (rest < 0) {
        rest += kSecondsPerDay;
        --days;
    }
    const Civil civil = civilFromDays(days + kReferenceDays);
    char buffer[64];
    const int hour = static_cast<int>(rest / 3600), minute = static_cast<int>(rest / 60 % 60),
              second = static_cast<int>(rest % 60);
    if (withMillis) {
        std::snprintf(buffer, sizeof buffer, "%04lld-%02u-%02uT%02d:%02d:%02d.%03dZ",
                      static_cast<long long>(civil.year), civil.month, civil.day, hour, minute, second, millis);
    } else {
        std::snprintf(buffer, sizeof buffer, "%04lld-%02u-%02uT%02d:%02d:%02dZ", static_cast<long long>(civil.year),
                      civil.month, civil.day, hour, minute, second);
    }
    return buffer;
}

bool readDigits(std::string_view& text, std::size_t count, unsigned& out) {
    if (text.size() < count) return false;
    unsigned value = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const char c = text[i];
        if (c < '0' || c > '9') return false;
        value = value * 10 + static_cast<unsigned>(c - '0');
    }
    text.remove_prefix(count);
    out = value;
    return true;
}

bool consume(std::string_view& text, char c) {
    if (text.empty() || text.front() != c) return false;
    text.remove_prefix(1);
    return true;
}

}  // namespace

Date Date::now() {
    const auto since = std::chrono::system_clock::now().time_since_epoch();
    return fromUnix(std::chrono::duration<double>(since).count());
}

std::string formatISO8601(Date date) { return format(date, false); }
std::string formatISO8601Fraction(Date date) { return format(date, true); }

std::optional<Date> parseISO8601(std::string_view text) {
    unsigned year = 0, month = 1, day = 1, hour = 0, minute = 0, second = 0;
    double fraction = 0;
    if (!readDigits(text, 4, year)) return std::nullopt;
    if (consume(text, '-')) {
        if (!readDigits(text, 2, month)) return std::nullopt;
        if (consume(text, '-')) {
            if (!readDigits(text, 2, day)) return std::nullopt;
            if (consume(text, 'T')) {
                if (!readDigits(text, 2, hour)) return std::nullopt;
                if (consume(text, ':')) {
                    if (!readDigits(text, 2, minute)) return std::nullopt;
                    if (consume(text, ':')) {
                        if (!readDigits(text, 2, second)) return std::nullopt;
                        if (consume(text, '.')) {
                            double scale = 0.1;
                            std::size_t digits = 0;
                            while (!text.empty() && text.front() >= '0' && text.front() <= '9') {
                                fraction += (text.front() - '0') * scale;
                                scale /= 10;
                                text.remove_prefix(1);
                                ++digits;
                            }
                            if (digits == 0) return std::nullopt;
                        }
                    }
                }
            }
        }
    }
    if (text != "Z") return std::nullopt;
    if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60) return std::nullopt;
    const std::int64_t days = daysFromCivil(year, month, day) - kReferenceDays;
    const double seconds = static_cast<double>(days * kSecondsPerDay + hour * 3600 + minute * 60 + second) + fraction;
    return Date{seconds};
}

}  // namespace netvane
