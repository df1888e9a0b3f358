#include <gtest/gtest.h>

#include "ReportTestSupport.hpp"
#include "gaugepoint/reports/UsageBlocks.hpp"

namespace gaugepoint {
namespace {

using testing::at;
using testing::usageEntry;

std::vector<QuotaUsageEntry> claude(const std::vector<std::string>& times) {
    std::vector<QuotaUsageEntry> entries;
    for (const auto& time : times) entries.push_back(usageEntry("claude", time, 1000));
    return entries;
}

// "start–end" of each block, and "gap" for gap blocks.
std::vector<std::string> shape(const std::vector<UsageBlock>& blocks) {
    std::vector<std::string> out;
    for (const auto& b : blocks) {
        out.push_back(std::string(b.isGap ? "gap " : "") + formatISO8601(b.startTime) + " " + formatISO8601(b.endTime) + " " +
                      std::to_string(b.totals.entries));
    }
    return out;
}

TEST(UsageBlocks, FiveHoursAfterTheStartOrTheLastEntryStillJoinsAndMoreStartsTheNext) {
    const auto blocks = usageBlocks(claude({"2026-11-10T10:20:00Z", "2026-11-10T15:00:00Z",  // exactly 5h after the start
                                            "2026-11-10T15:00:01Z",                            // past it: the 15:00 block
                                            "2026-11-10T20:00:01Z",                            // 5h after the entry, not the start
                                            "2026-11-11T01:00:00Z",                            // exactly 5h after the start
                                            "2026-11-11T06:00:00Z",  // exactly 5h after the entry, 10h after the start
                                            "2026-11-11T11:00:00Z"}),  // exactly 5h after both
                                    at("2026-11-30T00:00:00Z"));
    EXPECT_EQ(shape(blocks), (std::vector<std::string>{"2026-11-10T10:00:00Z 2026-11-10T15:00:00Z 2",
                                                       "2026-11-10T15:00:00Z 2026-11-10T20:00:00Z 1",
                                                       "2026-11-10T20:00:00Z 2026-11-11T01:00:00Z 2",
                                                       "2026-11-11T06:00:00Z 2026-11-11T11:00:00Z 2"}));
    EXPECT_EQ(blocks[0].actualEndTime, at("2026-11-10T15:00:00Z"));
    for (const auto& b : blocks) EXPECT_FALSE(b.isActive);
}

TEST(UsageBlocks, LongPausesGetGapBlocksListedByStart) {
    const auto blocks = usageBlocks(claude({"2026-11-10T10:30:00Z", "2026-11-10T15:40:00Z",  // gap 15:30-15:40, block 15:00
                                            "2026-11-11T09:00:00Z"}),
                                    at("2026-11-30T00:00:00Z"));
    EXPECT_EQ(shape(blocks), (std::vector<std::string>{"2026-11-10T10:00:00Z 2026-11-10T15:00:00Z 1",
                                                       "2026-11-10T15:00:00Z 2026-11-10T20:00:00Z 1",
                                                       "gap 2026-11-10T15:30:00Z 2026-11-10T15:40:00Z 0",
                                                       "gap 2026-11-10T20:40:00Z 2026-11-11T09:00:00Z 0",
                                                       "2026-11-11T09:00:00Z 2026-11-11T14:00:00Z 1"}));
    EXPECT_FALSE(blocks[2].actualEndTime);
    EXPECT_TRUE(blocks[2].totals.modelsUsed.empty());
}

TEST(UsageBlocks, AnActiveBlockHasItsPaceAndWhereThatPaceEnds) {
    const auto entries = claude({"2026-11-10T10:00:00Z", "2026-11-10T10:10:00Z"});
    const auto active = usageBlocks(entries, at("2026-11-10T10:30:00Z")).at(0);
    ASSERT_TRUE(active.isActive);
    ASSERT_TRUE(active.burnRate && active.projection);
    EXPECT_DOUBLE_EQ(active.burnRate->tokensPerMinute, 200);          // 2,000 tokens in 10 minutes
    EXPECT_NEAR(active.burnRate->costPerHour, 0.036, 1e-12);         // $0.006 at $3 per million input tokens
    EXPECT_EQ(active.projection->remainingMinutes, 270);
    EXPECT_EQ(active.projection->totalTokens, 2000 + 200 * 270);
    EXPECT_NEAR(active.projection->totalCost, 0.006 + 0.0006 * 270, 1e-12);

    // Active only while now is within five hours of the last entry and before the end.
    EXPECT_TRUE(usageBlocks(entries, at("2026-11-10T14:59:59Z"))[0].isActive);
    EXPECT_FALSE(usageBlocks(entries, at("2026-11-10T15:00:00Z"))[0].isActive);
    EXPECT_FALSE(usageBlocks(claude({"2026-11-10T10:00:00Z"}), at("2026-11-10T15:00:00Z"))[0].isActive);
    EXPECT_FALSE(usageBlocks(entries, at("2026-11-10T10:30:00Z"))[0].isGap);
    // A single entry has no pace to project.
    EXPECT_FALSE(usageBlocks(claude({"2026-11-10T10:00:00Z"}), at("2026-11-10T10:30:00Z"))[0].burnRate);
}

TEST(UsageBlocks, TheActiveBlockOfTheStoreFollowsARunOfEntriesBackToItsStart) {
    // An entry every four hours for ten days: one unbroken run, whose blocks depend on its first entry.
    std::vector<std::string> times;
    for (int hour = 0; hour < 240; hour += 4) {
        times.push_back(formatISO8601(at("2026-11-01T00:30:00Z") + std::chrono::hours(hour)));
    }
    testing::UsageFixture fixture;
    fixture.add(claude(times));
    const Date now = at("2026-11-10T20:45:00Z");  // after the last entry, 20:30, in the block ending 21:00
    const auto all = usageBlocks(claude(times), now);
    ASSERT_TRUE(all.back().isActive);
    EXPECT_EQ(activeUsageBlock(fixture.store(), "claude", now), all.back());
    EXPECT_FALSE(activeUsageBlock(fixture.store(), "claude", at("2026-11-11T02:00:00Z")));
    EXPECT_FALSE(activeUsageBlock(fixture.store(), "codex", now));
}

}  // namespace
}  // namespace gaugepoint
