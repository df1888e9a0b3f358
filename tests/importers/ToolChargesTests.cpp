// What Copilot CLI (premium requests, AI units) and Amp (credits) charged in their own units,
// against the figures the sample generator worked out, and counted once however often the logs
// repeat them.

#include <gtest/gtest.h>

#include <fstream>

#include "ImporterTestSupport.hpp"

namespace gaugepoint {
namespace {

using testing::LogTree;
using Days = std::map<std::string, QuotaUsageCharges>;

Days expectedCharges(const char* provider, const char* zone) {
    Days days;
    const auto document = testing::expectedDocument("expected-daily-more.json");
    for (const auto& row : document.at("daily").at(provider).at(zone).as_array()) {
        const auto* charges = row.as_object().if_contains("charges");
        if (!charges) continue;
        const auto amount = [&](const char* unit) {
            const auto* value = charges->as_object().if_contains(unit);
            return value ? value->to_number<double>() : 0.0;
        };
        days[std::string(row.at("date").as_string())] = {amount("premiumRequests"), amount("aiu"), amount("credits")};
    }
    return days;
}

Days chargesByDay(const LogTree& tree, const std::string& provider, const LocalCalendar& calendar) {
    Days days;
    for (const auto& e : tree.usage().countedEntries(provider)) {
        if (e.charges.any()) days[calendar.dayKey(e.timestamp)] += e.charges;
    }
    return days;
}

void expectNear(const Days& actual, const Days& expected, const std::string& what) {
    ASSERT_EQ(actual.size(), expected.size()) << what;
    for (const auto& [day, charges] : expected) {
        const auto& got = actual.at(day);
        EXPECT_NEAR(got.premiumRequests, charges.premiumRequests, 1e-9) << what << " " << day;
        EXPECT_NEAR(got.aiu, charges.aiu, 1e-9) << what << " " << day;
        EXPECT_NEAR(got.credits, charges.credits, 1e-9) << what << " " << day;
    }
}

TEST(ToolCharges, EqualTheSamplesFiguresAndRepeatsAddNothing) {
    const LogTree tree{{"copilot", "amp"}};
    tree.scan();
    for (const char* zone : {"UTC", "America/New_York"}) {
        const auto calendar = *LocalCalendar::inTimeZone(zone);
        for (const char* provider : {"copilot", "amp"}) {
            expectNear(chargesByDay(tree, provider, calendar), expectedCharges(provider, zone),
                       std::string(provider) + " " + zone);
        }
    }
    const auto utc = *LocalCalendar::inTimeZone("UTC");
    const auto before = chargesByDay(tree, "copilot", utc);

    // A shutdown written again, and one whose running totals did not grow, charge nothing more;
    // a touched Amp thread is read again whole and still counts each response once.
    const auto events =
        tree.home("copilot") / "session-state" / "7e2d9a40-2222-4c1b-8d3e-5f6a7b8c9d0e" / "events.jsonl";
    std::string last;
    std::ifstream in{events};
    for (std::string line; std::getline(in, line);) last = line;
    std::string repeated = last;
    repeated.replace(repeated.find("\"id\":\"f3\""), 9, "\"id\":\"f4\"");
    std::ofstream{events, std::ios::app} << last << "\n" << repeated << "\n";
    const auto thread = tree.home("amp") / "threads" / "T-5a1c0f7e-0001-4b2c-9d8e-7f6a5b4c3d2e.json";
    std::ofstream{thread, std::ios::app} << "\n";
    const auto second = tree.scan();
    EXPECT_EQ(second.filesRead, 2);
    expectNear(chargesByDay(tree, "copilot", utc), before, "copilot after repeats");
    expectNear(chargesByDay(tree, "amp", utc), expectedCharges("amp", "UTC"), "amp after a rewrite");
}

}  // namespace
}  // namespace gaugepoint
