#include <gtest/gtest.h>

#include <cstdlib>

#include "TestSupport.hpp"
#include "gaugepoint/platform/LocalCalendar.hpp"

namespace gaugepoint {
namespace {

using testing::at;

// New York: 2026-03-08 has 23 hours (02:00 EST -> 03:00 EDT), 2026-11-01 has 25 (02:00 EDT ->
// 01:00 EST).
TEST(LocalCalendar, DaysAndHoursFollowTheZoneAcrossClockChanges) {
    const auto calendar = LocalCalendar::inTimeZone("America/New_York");
    ASSERT_TRUE(calendar);
    EXPECT_EQ(calendar->timeZoneID(), "America/New_York");
    EXPECT_EQ(calendar->dayKey(at("2026-11-22T04:59:59Z")), "2026-11-21");  // 23:59:59 local
    EXPECT_EQ(calendar->dayKey(at("2026-11-22T05:00:00Z")), "2026-11-22");  // midnight local

    const Date shortDay = calendar->startOfDay(at("2026-03-08T12:00:00Z"));
    EXPECT_EQ(shortDay, at("2026-03-08T05:00:00Z"));
    EXPECT_EQ(calendar->startOfDay(calendar->addingDays(shortDay, 1)) - shortDay, std::chrono::hours(23));
    const Date longDay = calendar->startOfDay(at("2026-11-01T12:00:00Z"));
    EXPECT_EQ(longDay, at("2026-11-01T04:00:00Z"));
    EXPECT_EQ(calendar->startOfDay(calendar->addingDays(longDay, 1)) - longDay, std::chrono::hours(25));
    EXPECT_EQ(calendar->dayKey(at("2026-11-02T04:59:59Z")), "2026-11-01");  // the 25th hour

    // The repeated hour 01:00-02:00 starts within itself both times.
    EXPECT_EQ(calendar->startOfHour(at("2026-11-01T05:30:00Z")), at("2026-11-01T05:00:00Z"));  // 01:30 EDT
    EXPECT_EQ(calendar->startOfHour(at("2026-11-01T06:30:00Z")), at("2026-11-01T06:00:00Z"));  // 01:30 EST
    // A zone half an hour off UTC has hours on the half hour.
    EXPECT_EQ(LocalCalendar::inTimeZone("Asia/Kolkata")->startOfHour(at("2026-11-21T10:10:00Z")), at("2026-11-21T09:30:00Z"));
    EXPECT_FALSE(LocalCalendar::inTimeZone("Mars/Olympus_Mons"));
}

TEST(LocalCalendar, CurrentFollowsTheTimeZoneOfTheMoment) {
    ::setenv("TZ", "Asia/Tokyo", 1);
    EXPECT_EQ(LocalCalendar::current().dayKey(at("2026-11-21T15:00:00Z")), "2026-11-22");
    ::setenv("TZ", "UTC", 1);
    EXPECT_EQ(LocalCalendar::current().dayKey(at("2026-11-21T15:00:00Z")), "2026-11-21");
}

}  // namespace
}  // namespace gaugepoint
