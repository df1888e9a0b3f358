#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace gaugepoint {

// A point in time as seconds since 1970 in a double, so SQL REAL columns round-trip exactly.
using Date = std::chrono::time_point<std::chrono::system_clock, std::chrono::duration<double>>;

// Seconds since 1970 <-> Date.
inline Date dateFromSeconds(double secondsSince1970) {
    return Date{std::chrono::duration<double>{secondsSince1970}};
}
inline double secondsSince1970(Date date) { return date.time_since_epoch().count(); }

// Whole milliseconds since 1970: seconds × 1000 rounded to nearest, halves away from zero,
// clamped to the signed 64-bit range (a NaN date gives 0).
std::int64_t millisecondsSince1970(Date date);

// "2026-11-21T13:19:00Z" in UTC; fractional seconds (up to six digits, trailing zeros dropped)
// only when the value has them. Dates outside years 0000-9999 are clamped to that range.
std::string formatISO8601(Date date);

// Always three fraction digits, as JavaScript writes dates: "2026-11-21T13:19:00.000Z"
// (rounded to the nearest millisecond; clamped as above).
std::string formatISO8601Milliseconds(Date date);

// Gregorian calendar days as day numbers (days since 1970-01-01) and "yyyy-MM-dd" keys.
// dayNumber() is none for any other text or an impossible date ("2026-02-30").
std::optional<std::int64_t> dayNumber(std::string_view dayKey);
std::string dayKeyOfNumber(std::int64_t dayNumber);
// 0 for Sunday ... 6 for Saturday.
int weekdayOfNumber(std::int64_t dayNumber);

// The internet date-time form without fractional seconds (the seconds are floored):
// "2026-11-21T13:19:00Z".
std::string formatInternetDateTime(Date date);

// Parses "YYYY-MM-DDTHH:MM:SS[.fraction](Z|+HH:MM|+HHMM|-HH:MM|-HHMM)". Returns nothing for any
// other text, including out-of-range fields.
std::optional<Date> parseISO8601(std::string_view text);

}  // namespace gaugepoint
