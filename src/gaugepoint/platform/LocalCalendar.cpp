#include "gaugepoint/platform/LocalCalendar.hpp"

#include <memory>

#include <unicode/calendar.h>
#include <unicode/gregocal.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>

#include <cmath>
#include <mutex>

namespace gaugepoint {

// ICU calendars and formatters are not safe to share between threads; one lock guards both.
struct LocalCalendar::State {
    std::mutex lock;
    std::unique_ptr<icu::Calendar> calendar;
    std::unique_ptr<icu::SimpleDateFormat> dayFormat;
    std::unique_ptr<icu::SimpleDateFormat> dayTimeFormat;
};

namespace {

constexpr double millisecondsPerSecond = 1000.0;

UDate toUDate(Date date) { return secondsSince1970(date) * millisecondsPerSecond; }
Date fromUDate(UDate date) { return dateFromSeconds(date / millisecondsPerSecond); }

std::shared_ptr<LocalCalendar::State> makeState(icu::TimeZone* zone, LocalCalendar::Kind kind) {
    // The user's calendar (Gregorian, Buddhist, Japanese, ... by the locale) or the Gregorian
    // one; digits and pattern letters of en_US_POSIX. The calendar adopts `zone`.
    UErrorCode status = U_ZERO_ERROR;
    auto state = std::make_shared<LocalCalendar::State>();
    if (kind == LocalCalendar::Kind::gregorian) {
        state->calendar = std::make_unique<icu::GregorianCalendar>(zone, icu::Locale::getDefault(), status);
    } else {
        state->calendar.reset(icu::Calendar::createInstance(zone, icu::Locale::getDefault(), status));
    }
    state->dayFormat = std::make_unique<icu::SimpleDateFormat>(icu::UnicodeString(u"yyyy-MM-dd"),
                                                              icu::Locale("en_US_POSIX"), status);
    if (U_FAILURE(status) || !state->calendar || !state->dayFormat) throw std::bad_alloc();
    state->dayTimeFormat = std::make_unique<icu::SimpleDateFormat>(icu::UnicodeString(u"yyyy-MM-dd HH:mm"),
                                                                  icu::Locale("en_US_POSIX"), status);
    if (U_FAILURE(status) || !state->dayTimeFormat) throw std::bad_alloc();
    state->dayFormat->setCalendar(*state->calendar);
    state->dayTimeFormat->setCalendar(*state->calendar);
    return state;
}

}  // namespace

LocalCalendar LocalCalendar::current(Kind kind) {
    return LocalCalendar{makeState(icu::TimeZone::detectHostTimeZone(), kind)};
}

namespace {

// The zone's identifier as ICU writes it when `identifier` names one in another case ("utc",
// "europe/paris"); the identifier itself otherwise.
icu::UnicodeString canonicalCase(const icu::UnicodeString& identifier) {
    UErrorCode status = U_ZERO_ERROR;
    std::unique_ptr<icu::StringEnumeration> all{icu::TimeZone::createEnumeration(status)};
    if (U_FAILURE(status) || !all) return identifier;
    while (const icu::UnicodeString* id = all->snext(status)) {
        if (U_FAILURE(status)) break;
        if (id->caseCompare(identifier, U_FOLD_CASE_DEFAULT) == 0) return *id;
    }
    return identifier;
}

}  // namespace

std::optional<LocalCalendar> LocalCalendar::inTimeZone(std::string_view identifier, Kind kind) {
    if (identifier.empty()) return std::nullopt;
    const auto name = icu::UnicodeString::fromUTF8({identifier.data(), int32_t(identifier.size())});
    for (const auto& candidate : {name, canonicalCase(name)}) {
        icu::TimeZone* zone = icu::TimeZone::createTimeZone(candidate);
        icu::UnicodeString id;
        if (zone && zone->getID(id) != icu::UnicodeString(UCAL_UNKNOWN_ZONE_ID)) return LocalCalendar{makeState(zone, kind)};
        delete zone;
    }
    return std::nullopt;
}

std::string LocalCalendar::timeZoneID() const {
    std::lock_guard guard{state_->lock};
    icu::UnicodeString id;
    std::string text;
    state_->calendar->getTimeZone().getID(id).toUTF8String(text);
    return text;
}

std::string LocalCalendar::dayKey(Date date) const {
    std::lock_guard guard{state_->lock};
    icu::UnicodeString text;
    state_->dayFormat->format(toUDate(date), text);
    std::string key;
    return text.toUTF8String(key);
}

std::string LocalCalendar::dayTimeText(Date date) const {
    std::lock_guard guard{state_->lock};
    icu::UnicodeString text;
    state_->dayTimeFormat->format(toUDate(date), text);
    std::string result;
    return text.toUTF8String(result);
}

Date LocalCalendar::startOfDay(Date date) const {
    std::lock_guard guard{state_->lock};
    UErrorCode status = U_ZERO_ERROR;
    icu::Calendar& calendar = *state_->calendar;
    calendar.setTime(toUDate(date), status);
    calendar.set(UCAL_HOUR_OF_DAY, 0);
    calendar.set(UCAL_MINUTE, 0);
    calendar.set(UCAL_SECOND, 0);
    calendar.set(UCAL_MILLISECOND, 0);
    // A day whose midnight a clock change skips starts at the first moment that exists.
    return fromUDate(calendar.getTime(status));
}

std::optional<Date> LocalCalendar::startOfDay(std::string_view dayKey) const {
    // A Gregorian calendar takes the key's fields directly: ICU's date parsing costs about
    // 100 times as much, and a status line reads today's start on every run.
    if (const auto number = dayNumber(dayKey)) {
        std::lock_guard guard{state_->lock};
        if (auto* gregorian = dynamic_cast<icu::GregorianCalendar*>(state_->calendar.get())) {
            const int year = std::stoi(std::string(dayKey.substr(0, 4)));
            const int month = std::stoi(std::string(dayKey.substr(5, 2)));
            const int day = std::stoi(std::string(dayKey.substr(8, 2)));
            UErrorCode status = U_ZERO_ERROR;
            gregorian->clear();
            gregorian->set(year, month - 1, day, 0, 0, 0);
            // A day whose midnight a clock change skips starts at the first moment that exists.
            const UDate start = gregorian->getTime(status);
            if (U_SUCCESS(status)) return fromUDate(start);
        }
    }
    UDate parsed = 0;
    {
        std::lock_guard guard{state_->lock};
        UErrorCode status = U_ZERO_ERROR;
        parsed = state_->dayFormat->parse(icu::UnicodeString::fromUTF8({dayKey.data(), int32_t(dayKey.size())}), status);
        if (U_FAILURE(status)) return std::nullopt;
    }
    // The format is lenient ("2026-02-30" reads as March 2): only a key that reads back is one.
    const Date day = startOfDay(fromUDate(parsed));
    if (this->dayKey(day) != dayKey) return std::nullopt;
    return day;
}

Date LocalCalendar::startOfHour(Date date) const {
    std::lock_guard guard{state_->lock};
    // From the offset in force at `date`, so the repeated hour of a clock change going back
    // starts within itself rather than an hour earlier.
    UErrorCode status = U_ZERO_ERROR;
    int32_t raw = 0, daylight = 0;
    const UDate utc = toUDate(date);
    state_->calendar->getTimeZone().getOffset(utc, false, raw, daylight, status);
    const double offset = double(raw) + double(daylight);
    constexpr double millisecondsPerHour = 3'600'000.0;
    return fromUDate(std::floor((utc + offset) / millisecondsPerHour) * millisecondsPerHour - offset);
}

Date LocalCalendar::addingDays(Date date, int days) const {
    std::lock_guard guard{state_->lock};
    UErrorCode status = U_ZERO_ERROR;
    icu::Calendar& calendar = *state_->calendar;
    calendar.setTime(toUDate(date), status);
    calendar.add(UCAL_DATE, days, status);
    return fromUDate(calendar.getTime(status));
}

}  // namespace gaugepoint
