#include "views/time_axis.h"

#include <time.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace netvane::views {
namespace {

constexpr double kDay = 86400;
// Calendar text covers the years -9999 to 9999; ticks beyond get no label.
constexpr double kCalendarReach = 9999 * 365.25 * kDay;

// Round clock steps. Multiples of a day count whole local days from the
// reference date, a Monday, so weekly ticks land on Mondays.
constexpr std::array<double, 22> kSteps{1,    2,    5,     10,    15,    30,      60,      120,     300,   600,   900,
                                        1800, 3600, 7200,  10800, 21600, 43200,   kDay,    2 * kDay, 7 * kDay,
                                        14 * kDay, 28 * kDay};

constexpr std::array<const char*, 12> kMonths{"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// The calendar fields of a local time, read off its UTC rendering: local
// seconds since the reference date format as if they were UTC.
struct LocalFields {
    std::string iso;  // "2026-11-23T14:30:15Z"

    int month() const { return std::atoi(iso.substr(5, 2).c_str()); }
    std::string day() const { return iso[8] == '0' ? iso.substr(9, 1) : iso.substr(8, 2); }
    std::string minute() const { return iso.substr(11, 5); }
    std::string second() const { return iso.substr(11, 8); }
};

LocalFields localFields(double localSeconds) { return LocalFields{formatISO8601(Date{localSeconds})}; }

// The UTC moment at which local time reads `localSeconds`; two rounds settle
// the offset on either side of a daylight-saving change.
Date fromLocal(double localSeconds, const UTCOffset& offsetAt) {
    double guess = localSeconds - static_cast<double>(offsetAt(Date{localSeconds}));
    guess = localSeconds - static_cast<double>(offsetAt(Date{guess}));
    return Date{guess};
}

}  // namespace

long localUTCOffset(Date moment) {
    const auto unix = static_cast<time_t>(std::floor(moment.unixSeconds()));
    tm fields{};
    if (::localtime_r(&unix, &fields) == nullptr) return 0;
    return fields.tm_gmtoff;
}

std::string formatUTCOffset(long secondsEast) {
    if (secondsEast == 0) return "UTC";
    const long minutes = std::labs(secondsEast) / 60;
    char text[32];
    std::snprintf(text, sizeof text, "UTC%c%02ld:%02ld", secondsEast < 0 ? '-' : '+', minutes / 60, minutes % 60);
    return text;
}

std::vector<TimeTick> timeTicks(Date from, Date to, int maxTicks, const UTCOffset& offsetAt) {
    std::vector<TimeTick> ticks;
    const double span = to.secondsSinceReference - from.secondsSinceReference;
    if (!(span > 0) || maxTicks < 1) return ticks;
    double step = kSteps.back();
    for (double candidate : kSteps) {
        if (span / candidate <= maxTicks) {
            step = candidate;
            break;
        }
    }
    // Wider than the table: whole multiples of its largest step.
    if (span / step > maxTicks) step *= std::ceil(span / step / maxTicks);

    const double localFrom = from.secondsSinceReference + static_cast<double>(offsetAt(from));
    const double localTo = to.secondsSinceReference + static_cast<double>(offsetAt(to));
    // The loop ends also where a step no longer moves a number that large.
    for (double local = step * std::ceil(localFrom / step); local <= localTo && local + step > local; local += step) {
        const Date moment = fromLocal(local, offsetAt);
        if (moment < from || moment > to) continue;
        // A clock that jumps (daylight saving) can map two local ticks to
        // one moment: keep the first.
        if (!ticks.empty() && !(ticks.back().time < moment)) continue;
        // Labelled with the clock as it reads at that moment: a local time
        // skipped by a jump lands on the time after it.
        const double actual = moment.secondsSinceReference + static_cast<double>(offsetAt(moment));
        if (!(std::abs(actual) < kCalendarReach)) continue;
        const LocalFields fields = localFields(actual);
        std::string label;
        if (std::fmod(actual, kDay) == 0) {
            label = fields.day() + " " + kMonths[static_cast<std::size_t>(fields.month() - 1)];
        } else {
            label = step < 60 ? fields.second() : fields.minute();
        }
        ticks.push_back(TimeTick{moment, std::move(label)});
    }
    return ticks;
}

std::string formatLocalMinute(Date moment, const UTCOffset& offsetAt) {
    const LocalFields fields = localFields(moment.secondsSinceReference + static_cast<double>(offsetAt(moment)));
    return fields.iso.substr(0, 10) + " " + fields.minute();
}

}  // namespace netvane::views
