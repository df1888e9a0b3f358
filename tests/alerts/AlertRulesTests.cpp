// The rules, settings and texts of alerts, without a bus.

#include <gtest/gtest.h>

#include "TestSupport.hpp"
#include "gaugepoint/alerts/AlertRules.hpp"
#include "gaugepoint/alerts/AlertText.hpp"

namespace gaugepoint {
namespace {

using testing::at;

const Date kNow = testing::at("2026-11-24T10:00:00Z");

QuotaWindow window(std::string id, double used, std::optional<Date> resetsAt, QuotaWindowSemantic kind,
                   std::optional<std::int64_t> minutes = std::nullopt) {
    QuotaWindow w;
    w.id = std::move(id);
    w.label = "Session";
    w.usedPercent = used;
    w.resetsAt = resetsAt;
    w.windowMinutes = minutes;
    w.semantic = kind;
    return w;
}

// Windows read at `observed`, as they read at `now`.
AlertProviderReading reading(std::string provider, std::vector<QuotaWindow> windows, Date now = kNow,
                             std::optional<Date> observed = std::nullopt) {
    ProviderQuota p;
    p.id = provider;
    p.displayName = provider == "claude" ? "Claude" : "Codex";
    p.windows = std::move(windows);
    p.updatedAt = observed.value_or(now);
    return {p.id, p.displayName, quotaProviderNow(p, *p.updatedAt, now)};
}

std::vector<std::string> keys(const std::vector<AlertCandidate>& candidates) {
    std::vector<std::string> out;
    for (const auto& c : candidates) out.push_back(c.key);
    return out;
}

TEST(AlertSettings, SetsValidatesAndResolvesThresholdsPerProviderAndKind) {
    InMemoryUserDefaults defaults;
    AlertSettings::set(defaults, "thresholds", "90, 50,75");
    AlertSettings::set(defaults, "thresholds.codex", "off");
    AlertSettings::set(defaults, "thresholds.claude.fixedCycle", "60");
    AlertSettings::set(defaults, "budget.daily", "12.5");
    AlertSettings::set(defaults, "quiet-hours", "22:00-07:30");
    AlertSettings::set(defaults, "desktop", "off");
    auto s = AlertSettings::load(defaults);
    EXPECT_EQ(s.thresholds, (std::vector<double>{50, 75, 90}));
    EXPECT_TRUE(s.thresholdsFor("codex", QuotaWindowSemantic::rollingSession).empty());
    EXPECT_EQ(s.thresholdsFor("claude", QuotaWindowSemantic::fixedCycle), std::vector<double>{60});
    EXPECT_EQ(s.thresholdsFor("claude", QuotaWindowSemantic::rollingSession), s.thresholds);
    EXPECT_EQ(s.dailyBudgetUSD, 12.5);
    EXPECT_FALSE(s.monthlyBudgetUSD);
    EXPECT_EQ(s.quietHours, (QuietHours{22 * 60, 7 * 60 + 30}));
    EXPECT_FALSE(s.desktop);

    for (const auto& [key, value] : std::vector<std::pair<std::string, std::string>>{
             {"thresholds", "0,50"}, {"thresholds", "101"}, {"thresholds", "50,,80"}, {"thresholds.Claude", "50"},
             {"thresholds.claude.weekly", "50"}, {"budget.daily", "-1"}, {"budget.monthly", "ten"},
             {"quiet-hours", "25:00-07:00"}, {"desktop", "maybe"}, {"sound", "on"}}) {
        EXPECT_THROW(AlertSettings::set(defaults, key, value), AlertSettingsError) << key << " " << value;
    }
    AlertSettings::reset(defaults, "thresholds");
    AlertSettings::set(defaults, "budget.daily", "off");
    s = AlertSettings::load(defaults);
    EXPECT_EQ(s.thresholds, (std::vector<double>{50, 80, 90, 95}));
    EXPECT_FALSE(s.dailyBudgetUSD);
    EXPECT_EQ(AlertSettings::changed(defaults).count("thresholds.codex"), 1u);
}

TEST(AlertSettings, QuietHoursWrapPastMidnight) {  // the tests run in UTC
    const auto night = QuietHours::parse("22:00-07:00").value();
    EXPECT_TRUE(night.contains(at("2026-11-24T23:10:00Z")));
    EXPECT_TRUE(night.contains(at("2026-11-24T06:59:00Z")));
    EXPECT_FALSE(night.contains(at("2026-11-24T07:00:00Z")));
    EXPECT_FALSE(QuietHours::parse("09:00-17:00")->contains(at("2026-11-24T17:30:00Z")));
    EXPECT_TRUE(QuietHours::parse("00:00-00:00")->contains(at("2026-11-24T12:00:00Z")));
    EXPECT_FALSE(QuietHours::parse("9-17"));
}

TEST(AlertRules, ThresholdsCrossedUpwardAreKeyedByWindowPeriodAndThreshold) {
    const Date reset = at("2026-11-24T12:00:00Z");
    AlertSettings settings;
    settings.thresholdOverrides["codex"] = {70};
    const auto candidates = alertCandidates(
        {reading("claude", {window("five_hour", 82, reset, QuotaWindowSemantic::rollingSession),
                            window("credits", 96, std::nullopt, QuotaWindowSemantic::creditsBalance)}),
         reading("codex", {window("primary", 69.9, reset, QuotaWindowSemantic::rollingSession)})},
        {}, settings, {}, kNow);
    EXPECT_EQ(keys(candidates), (std::vector<std::string>{
                                    "threshold|claude|five_hour|1795521600|50", "threshold|claude|five_hour|1795521600|80",
                                    "threshold|claude|credits|0|50", "threshold|claude|credits|0|80",
                                    "threshold|claude|credits|0|90", "threshold|claude|credits|0|95"}));
    EXPECT_FALSE(candidates[1].critical());
    EXPECT_TRUE(candidates[5].critical());
}

TEST(AlertRules, AJitteryResetStaysInItsPeriodAndANewPeriodResets) {
    const double period = secondsSince1970(at("2026-11-24T12:00:00Z"));
    const KnownAlertPeriods known{{"codex|primary", {period}}};
    const auto jittered = dateFromSeconds(period + 37);
    auto c = alertCandidates({reading("codex", {window("primary", 55, jittered, QuotaWindowSemantic::rollingSession)})},
                             {}, {}, known, kNow);
    EXPECT_EQ(keys(c), std::vector<std::string>{"threshold|codex|primary|1795521600|50"});

    // After the reset: the new period is not the old one, and the old one tells of its reset once.
    const Date later = at("2026-11-24T13:00:00Z");
    c = alertCandidates({reading("codex", {window("primary", 10, at("2026-11-24T17:00:00Z"),
                                                  QuotaWindowSemantic::rollingSession)}, later)},
                        {}, {}, known, later);
    EXPECT_EQ(keys(c), std::vector<std::string>{"reset|codex|primary|1795521600"});
    // A reading from before the reset, read after it: the window reads as reset.
    c = alertCandidates({reading("codex", {window("primary", 90, dateFromSeconds(period), QuotaWindowSemantic::rollingSession)},
                                 later, kNow)},
                        {}, {}, known, later);
    EXPECT_EQ(keys(c), std::vector<std::string>{"reset|codex|primary|1795521600"});
}

TEST(AlertRules, RunsOutOnlyWhenThePaceReachesTheLimitBeforeTheReset) {
    const Date reset = at("2026-11-24T12:00:00Z");  // a 5-hour window, 3 hours in
    AlertSettings noThresholds;
    noThresholds.thresholds = {};
    const auto fast = alertCandidates(
        {reading("claude", {window("five_hour", 75, reset, QuotaWindowSemantic::rollingSession, 300)})}, {},
        noThresholds, {}, kNow);
    ASSERT_EQ(keys(fast), std::vector<std::string>{"runsOut|claude|five_hour|1795521600"});
    EXPECT_TRUE(fast[0].critical());
    EXPECT_EQ(fast[0].runsOutAt, at("2026-11-24T11:00:00Z"));
    EXPECT_TRUE(alertCandidates({reading("claude", {window("five_hour", 50, reset, QuotaWindowSemantic::rollingSession, 300)})},
                                {}, noThresholds, {}, kNow)
                    .empty());
}

TEST(AlertRules, BudgetsFireOnceReachedAndOnlyWhenSet) {
    AlertSettings settings;
    const AlertSpending spending{12.0, "2026-11-24", 150.0, "2026-11"};
    EXPECT_TRUE(alertCandidates({}, spending, settings, {}, kNow).empty());
    settings.dailyBudgetUSD = 12.0;
    settings.monthlyBudgetUSD = 200.0;
    EXPECT_EQ(keys(alertCandidates({}, spending, settings, {}, kNow)), std::vector<std::string>{"budget|daily|2026-11-24"});
    settings.monthlyBudgetUSD = 149.99;
    EXPECT_EQ(keys(alertCandidates({}, spending, settings, {}, kNow)),
              (std::vector<std::string>{"budget|daily|2026-11-24", "budget|monthly|2026-11"}));
}

TEST(AlertText, EveryRuleReadsInEnglishAndChinese) {
    AlertCandidate threshold;
    threshold.rule = AlertRule::threshold;
    threshold.providerName = "Claude";
    threshold.window = window("five_hour", 82.7, at("2026-11-26T14:00:00Z"), QuotaWindowSemantic::rollingSession, 300);
    threshold.window.label = "Session";
    threshold.value = 82.7;
    threshold.limit = 80;
    auto en = AlertText::of(threshold, "en");
    auto zh = AlertText::of(threshold, "zh-Hans");
    EXPECT_NE(en.title.find("Claude"), std::string::npos);
    EXPECT_NE(en.title.find("82%"), std::string::npos);
    EXPECT_EQ(en.body, "Crossed 80% · resets Thu 14:00");
    EXPECT_NE(zh.title.find("已用 82%"), std::string::npos);
    EXPECT_EQ(zh.body, "已超过 80% · 周四 14:00 重置");

    auto runsOut = threshold;
    runsOut.rule = AlertRule::runsOut;
    runsOut.runsOutAt = at("2026-11-26T11:00:00Z");
    EXPECT_NE(AlertText::of(runsOut, "en").body.find("runs out ~Thu 11:00"), std::string::npos);
    EXPECT_NE(AlertText::of(runsOut, "zh").title.find("将在重置前用尽"), std::string::npos);

    auto reset = threshold;
    reset.rule = AlertRule::reset;
    EXPECT_NE(AlertText::of(reset, "en").title.find("has reset"), std::string::npos);
    EXPECT_NE(AlertText::of(reset, "zh").title.find("已重置"), std::string::npos);

    AlertCandidate budget;
    budget.rule = AlertRule::budget;
    budget.budgetPeriod = "monthly";
    budget.value = 201.5;
    budget.limit = 200;
    EXPECT_EQ(AlertText::of(budget, "en").body, "Spent $201.50 of $200.00 this month");
    EXPECT_EQ(AlertText::of(budget, "zh-Hans").title, "已达每月预算");
    EXPECT_EQ(AlertText::of(budget, "zh-Hans").body, "本月已花费 $201.50，预算 $200.00");
}

}  // namespace
}  // namespace gaugepoint
