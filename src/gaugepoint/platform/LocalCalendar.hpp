#pragma once

// Calendar days and hours as the user lives them: the current calendar of the user's locale in
// a time zone (the current one unless named), so a day of 23 or 25 hours is still one day.

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "gaugepoint/platform/Date.hpp"

namespace gaugepoint {

class LocalCalendar {
public:
    // The calendar of the user's locale, or the Gregorian calendar whatever the locale (reports
    // whose keys are Gregorian dates).
    enum class Kind { locale, gregorian };

    // The calendar in the current time zone, as they are at this call.
    static LocalCalendar current(Kind kind = Kind::locale);
    // The same calendar in the IANA zone `identifier` ("Europe/Berlin", in any case: "utc"); none
    // for an empty name or a zone that the time-zone database does not know.
    static std::optional<LocalCalendar> inTimeZone(std::string_view identifier, Kind kind = Kind::locale);

    // The zone's identifier ("America/New_York", "UTC").
    std::string timeZoneID() const;

    // The day of `date` as "yyyy-MM-dd" (ASCII digits whatever the locale), so that keys compare
    // as text in date order.
    std::string dayKey(Date date) const;
    // The day and the wall-clock minute of `date`: "yyyy-MM-dd HH:mm".
    std::string dayTimeText(Date date) const;
    // The first moment of the day, and of the hour, that holds `date`.
    Date startOfDay(Date date) const;
    // The first moment of the day whose dayKey() is `dayKey`; none for any other text.
    std::optional<Date> startOfDay(std::string_view dayKey) const;
    Date startOfHour(Date date) const;
    // `date` moved by whole calendar days, keeping its wall-clock time where the day has it.
    Date addingDays(Date date, int days) const;

    // Copies share one calendar; every operation is safe from any thread.
    struct State;  // the ICU calendar and formatter behind a lock
    explicit LocalCalendar(std::shared_ptr<State> state) : state_(std::move(state)) {}

private:
    std::shared_ptr<State> state_;
};

}  // namespace gaugepoint
