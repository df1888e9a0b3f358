#include <gtest/gtest.h>

#include "TestSupport.hpp"
#include "gaugepoint/model/QuotaReadingOrigin.hpp"
#include "gaugepoint/quota/QuotaReadingText.hpp"
#include "gaugepoint/reports/ClaudeBlockLimit.hpp"

namespace gaugepoint {
namespace {

using testing::at;

const Date kNow = at("2026-11-19T12:00:00Z");  // a Thursday

QuotaWindow window(std::string id, double used, std::int64_t minutes, Date resetsAt, std::int64_t importance = 0) {
    QuotaWindow w;
    w.id = std::move(id);
    w.label = w.id;
    w.usedPercent = used;
    w.windowMinutes = minutes;
    w.resetsAt = resetsAt;
    w.importance = importance;
    w.semantic = minutes <= 360 ? QuotaWindowSemantic::rollingSession : QuotaWindowSemantic::fixedCycle;
    return w;
}

TEST(QuotaPace, ComparesUseWithAnEvenBurnAndProjectsTheReset) {
    // A week with 4 of its 7 days gone: an even burn has used 57.1 %.
    const auto week = window("w", 70, 10080, at("2026-11-22T12:00:00Z"));
    const auto pace = quotaPace(week, kNow);
    ASSERT_TRUE(pace);
    EXPECT_NEAR(pace->expectedPercent, 400.0 / 7, 1e-9);
    EXPECT_NEAR(pace->deltaPercent, 70 - 400.0 / 7, 1e-9);
    EXPECT_NEAR(pace->projectedPercent, 70 * 7 / 4.0, 1e-9);
    // 100 % at 4 days × 100/70 after the start: Saturday 05:08.
    ASSERT_TRUE(pace->runsOutAt);
    EXPECT_NEAR(secondsSince1970(*pace->runsOutAt), secondsSince1970(at("2026-11-15T12:00:00Z")) + 4 * 86400 * 100 / 70.0, 1e-3);

    const auto slow = quotaPace(window("w", 20, 10080, at("2026-11-22T12:00:00Z")), kNow);
    EXPECT_FALSE(slow->runsOutAt);
    EXPECT_LT(slow->deltaPercent, 0);
    EXPECT_EQ(quotaPace(window("w", 100, 300, at("2026-11-19T14:00:00Z")), kNow)->runsOutAt, kNow);  // already out
}

TEST(QuotaPace, NeedsALengthAResetAndATenthOfTheWindow) {
    const struct {
        QuotaWindow window;
        QuotaPaceStatus status;
    } cases[] = {
        {window("early", 5, 300, at("2026-11-19T16:31:00Z")), QuotaPaceStatus::tooEarly},  // 29 of 300 minutes
        {window("tenth", 5, 300, at("2026-11-19T16:30:00Z")), QuotaPaceStatus::measured},
        {window("passed", 5, 300, at("2026-11-19T11:59:00Z")), QuotaPaceStatus::unavailable},
        {window("future", 5, 300, at("2026-11-19T18:00:00Z")), QuotaPaceStatus::unavailable},  // longer than its length
    };
    for (const auto& c : cases) EXPECT_EQ(quotaPaceStatus(c.window, kNow), c.status) << c.window.id;
    auto noLength = window("n", 5, 300, at("2026-11-19T14:00:00Z"));
    noLength.windowMinutes.reset();
    EXPECT_EQ(quotaPaceStatus(noLength, kNow), QuotaPaceStatus::unavailable);
    auto noReset = noLength;
    noReset.windowMinutes = 300;
    noReset.resetsAt.reset();
    EXPECT_FALSE(quotaPace(noReset, kNow));
}

TEST(QuotaReading, APassedResetReadsAsANewUnusedWindowInBothLanguages) {
    const auto passed = quotaWindowNow(window("primary", 87, 300, at("2026-11-19T10:00:00Z")), kNow);
    EXPECT_TRUE(passed.resetPassed);
    EXPECT_EQ(passed.window.usedPercent, 0);
    EXPECT_EQ(passed.window.resetsAt, at("2026-11-19T10:00:00Z"));
    EXPECT_FALSE(passed.pace);
    EXPECT_EQ(QuotaReadingText::resetPassed(at("2026-11-19T10:00:00Z"), kNow, "en"), "reset at 10:00, no reading since");
    EXPECT_EQ(QuotaReadingText::resetPassed(at("2026-11-17T10:00:00Z"), kNow, "zh-Hans"), "已于 周二 10:00 重置，此后无读数");
    EXPECT_FALSE(quotaWindowNow(window("primary", 87, 300, at("2026-11-19T13:00:00Z")), kNow).resetPassed);
}

TEST(QuotaReading, FreshnessComesFromTheProviderElseTheSnapshot) {
    ProviderQuota provider;
    provider.id = "codex";
    const Date made = at("2026-11-19T11:50:00Z");
    auto reading = quotaProviderNow(provider, made, kNow);
    EXPECT_EQ(reading.observedAt, made);
    EXPECT_EQ(reading.ageSeconds, 600);
    EXPECT_FALSE(reading.stale);
    provider.updatedAt = at("2026-11-19T11:40:00Z");
    reading = quotaProviderNow(provider, made, kNow);
    EXPECT_TRUE(reading.stale);  // 20 minutes: past the default 15
    EXPECT_EQ(QuotaReadingText::asOf(reading.ageSeconds, "en"), "as of 20 min ago");
    EXPECT_EQ(QuotaReadingText::asOf(reading.ageSeconds, "zh-Hans"), "截至 20 分钟前");
    EXPECT_EQ(QuotaReadingText::asOf(3 * 86400, "en"), "as of 3 days ago");
    EXPECT_EQ(QuotaReadingText::ago(5 * 3600, "zh-Hans"), "5 小时前");

    InMemoryUserDefaults defaults;
    defaults.setValue(QuotaFreshnessPolicy::staleAfterMinutesKey, boost::json::value(30));
    EXPECT_FALSE(quotaProviderNow(provider, made, kNow, QuotaFreshnessPolicy::fromDefaults(defaults)).stale);
    defaults.setValue(QuotaFreshnessPolicy::staleAfterMinutesKey, boost::json::value(-4));  // ignored
    EXPECT_EQ(QuotaFreshnessPolicy::fromDefaults(defaults).staleAfterSeconds, 900);
}

TEST(QuotaReading, TheWindowWithLeastLeftConstrainsTheProvider) {
    ProviderQuota provider;
    provider.windows = {window("primary", 20, 300, at("2026-11-19T14:00:00Z"), 0),
                        window("secondary", 97, 10080, at("2026-11-22T12:00:00Z"), 1)};
    EXPECT_EQ(quotaProviderNow(provider, kNow, kNow).constraining()->window.id, "secondary");  // 3 % left beats 80 %
    provider.windows[1].usedPercent = 20;  // a tie: the top window (importance 0) wins
    EXPECT_EQ(quotaProviderNow(provider, kNow, kNow).constraining()->window.id, "primary");
    provider.windows[1].usedPercent = 97;
    provider.windows[1].resetsAt = at("2026-11-19T11:00:00Z");  // reset since: unused, no longer the tightest
    EXPECT_EQ(quotaProviderNow(provider, kNow, kNow).constraining()->window.id, "primary");
    EXPECT_FALSE(quotaProviderNow(ProviderQuota{}, kNow, kNow).constraining());
}

TEST(QuotaReadingText, PaceInBothLanguages) {
    const auto runsOut = quotaWindowNow(window("w", 70, 10080, at("2026-11-22T12:00:00Z")), kNow);
    EXPECT_EQ(QuotaReadingText::paceText(runsOut, "en"), "13% ahead · runs out ~Sat 05:08, 31 h before reset");
    EXPECT_EQ(QuotaReadingText::paceText(runsOut, "zh-Hans"), "比均速快 13% · 约 周六 05:08 用完，比重置早 31 小时");
    const auto behind = quotaWindowNow(window("w", 30, 300, at("2026-11-19T14:00:00Z")), kNow);  // expected 60
    EXPECT_EQ(QuotaReadingText::paceText(behind, "en"), "30% behind");
    EXPECT_EQ(QuotaReadingText::paceText(behind, "zh-Hans"), "比均速慢 30%");
    EXPECT_EQ(QuotaReadingText::paceText(quotaWindowNow(window("w", 59.8, 300, at("2026-11-19T14:00:00Z")), kNow), "en"),
              "on pace");
    const auto early = quotaWindowNow(window("w", 1, 300, at("2026-11-19T16:50:00Z")), kNow);
    EXPECT_EQ(QuotaReadingText::paceText(early, "en"), "no pace yet");
    EXPECT_EQ(QuotaReadingText::paceText(early, "zh-Hans"), "暂无节奏");
}

UsageBlock block(std::int64_t tokens, Date start, bool active = false) {
    UsageBlock b;
    b.startTime = start;
    b.endTime = start + std::chrono::hours(5);
    b.isActive = active;
    b.totals.tokens.inputTokens = tokens;
    return b;
}

TEST(ClaudeBlockLimit, EstimatesTheNinetiethPercentileOfBlocksNearTheLimit) {
    const Date day = at("2026-11-10T00:00:00Z");
    std::vector<UsageBlock> blocks;
    for (std::int64_t tokens : {900'000, 1'000'000, 950'000, 980'000, 100'000, 30'000}) {
        blocks.push_back(block(tokens, day + std::chrono::hours(6 * blocks.size())));
    }
    blocks.push_back(block(5'000'000, kNow - std::chrono::hours(1), true));  // the active block does not count
    blocks.push_back(block(9'000'000, at("2026-08-01T00:00:00Z")));          // nor one from months ago
    // Near the limit: the four blocks within half of the largest; the 90th percentile of four is the largest.
    EXPECT_EQ(ClaudeBlockLimit::estimate(blocks, kNow), 1'000'000);
    blocks.erase(blocks.begin(), blocks.begin() + 2);  // two heavy blocks are too few
    EXPECT_FALSE(ClaudeBlockLimit::estimate(blocks, kNow));
    EXPECT_FALSE(ClaudeBlockLimit::estimate({}, kNow));
}

}  // namespace
}  // namespace gaugepoint
