#include <gtest/gtest.h>

#include "gaugepoint/platform/Date.hpp"

namespace gaugepoint {
namespace {

struct ParseCase {
    const char* text;
    double seconds;
};

TEST(ISO8601, ReadsUtcOffsetsAndFractions) {
    const ParseCase cases[] = {
        {"1970-01-01T00:00:00Z", 0},
        {"2026-11-21T13:19:00Z", 1795267140},
        {"2026-11-21T21:19:00+08:00", 1795267140},
        {"2026-11-21T21:19:00+0800", 1795267140},
        {"2026-11-21T08:19:00-05:00", 1795267140},
        {"2026-11-21T13:19:00.5Z", 1795267140.5},
        {"2026-11-21T13:19:00.250000Z", 1795267140.25},
        {"2024-02-29T00:00:00Z", 1709164800},
        {"1969-12-31T23:59:59Z", -1},
    };
    for (const auto& c : cases) {
        const auto date = parseISO8601(c.text);
        ASSERT_TRUE(date) << c.text;
        EXPECT_DOUBLE_EQ(secondsSince1970(*date), c.seconds) << c.text;
    }
}

TEST(ISO8601, RejectsMalformedAndOutOfRangeTexts) {
    for (const char* text : {"", "2026-11-21", "2026-11-21T13:19:00", "2026-11-21 13:19:00Z", "2026-13-01T00:00:00Z",
                             "2023-02-29T00:00:00Z", "2026-11-21T24:00:00Z", "2026-11-21T13:60:00Z",
                             "2026-11-21T13:19:00.Z", "2026-11-21T13:19:00Zjunk", "2026-11-21T13:19:00+25:00",
                             "20261121T131900Z", "２０２６-11-21T13:19:00Z"}) {
        EXPECT_FALSE(parseISO8601(text)) << text;
    }
}

TEST(ISO8601, WritesFractionsOnlyWhenPresent) {
    EXPECT_EQ(formatISO8601(dateFromSeconds(1795267140)), "2026-11-21T13:19:00Z");
    EXPECT_EQ(formatISO8601(dateFromSeconds(1795267140.5)), "2026-11-21T13:19:00.5Z");
    EXPECT_EQ(formatISO8601(dateFromSeconds(1795267140.123456)), "2026-11-21T13:19:00.123456Z");
    EXPECT_EQ(formatISO8601(dateFromSeconds(-0.5)), "1969-12-31T23:59:59.5Z");
    // A fraction that rounds up to a whole second carries into the seconds.
    EXPECT_EQ(formatISO8601(dateFromSeconds(1795267140.9999999)), "2026-11-21T13:19:01Z");
}

TEST(ISO8601, InternetDateTimeFloorsTheSeconds) {
    EXPECT_EQ(formatInternetDateTime(dateFromSeconds(1795267140.999)), "2026-11-21T13:19:00Z");
    EXPECT_EQ(formatInternetDateTime(dateFromSeconds(-0.25)), "1969-12-31T23:59:59Z");
}

TEST(ISO8601, MicrosecondValuesRoundTrip) {
    for (double seconds : {0.000001, 1795267140.000001, 1795267140.654321, 253402300799.0, -62167219200.0}) {
        const auto back = parseISO8601(formatISO8601(dateFromSeconds(seconds)));
        ASSERT_TRUE(back);
        EXPECT_NEAR(secondsSince1970(*back), seconds, 1e-6) << formatISO8601(dateFromSeconds(seconds));
    }
}

}  // namespace
}  // namespace gaugepoint
