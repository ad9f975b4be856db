// Points in time as the whole system stores them: seconds since
// 2001-01-01 00:00:00 UTC, as a double. Conversions to and from calendar text
// use the proleptic Gregorian calendar and work for any year from -9999 to 9999.
#pragma once

#include <compare>
#include <optional>
#include <string>
#include <string_view>

namespace netvane {

// Seconds between the Unix epoch and the reference date 2001-01-01T00:00:00Z.
inline constexpr double kUnixToReferenceSeconds = 978307200.0;

struct Date {
    double secondsSinceReference = 0;

    auto operator<=>(const Date&) const = default;

    static Date now();
    static Date fromUnix(double unixSeconds) { return Date{unixSeconds - kUnixToReferenceSeconds}; }
    double unixSeconds() const { return secondsSinceReference + kUnixToReferenceSeconds; }
};

// "2001-01-01T00:00:00Z": whole seconds, rounded down.
std::string formatISO8601(Date date);
// "2001-01-01T00:00:00.250Z": milliseconds, rounded down.
std::string formatISO8601Fraction(Date date);
// Accepts "YYYY[-MM[-DD[THH[:MM[:SS[.fff]]]]]]Z"; nothing else.
std::optional<Date> parseISO8601(std::string_view text);

}  // namespace netvane
