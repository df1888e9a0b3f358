#include <gtest/gtest.h>

#include "TestSupport.hpp"
#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/widgets/QuotaWidgetText.hpp"

namespace gaugepoint {
namespace {

using testing::at;

const Date kNow = at("2026-11-21T09:30:00Z");

QuotaWindow timeWindow(std::string id, double used, std::int64_t minutes, std::int64_t importance, Date resetsAt) {
    QuotaWindow w;
    w.id = std::move(id);
    w.label = w.id;
    w.usedPercent = used;
    w.windowMinutes = minutes;
    w.importance = importance;
    w.resetsAt = resetsAt;
    w.semantic = minutes <= 360 ? QuotaWindowSemantic::rollingSession : QuotaWindowSemantic::fixedCycle;
    return w;
}

ProviderQuota provider(std::string id, std::string name, std::vector<QuotaWindow> windows,
                       std::optional<double> credits = std::nullopt) {
    ProviderQuota p;
    p.id = std::move(id);
    p.displayName = std::move(name);
    p.windows = std::move(windows);
    p.creditsRemaining = credits;
    p.quotaStrategy = QuotaProviderStrategy::multiWindow;
    return p;
}

QuotaSnapshot sample() {
    QuotaSnapshot s;
    s.generatedAt = at("2026-11-21T09:28:00Z");
    s.providers = {
        // Stored with the weekly window first: the view keeps that order, the top window is the 5h one.
        provider("claude", "Claude",
                 {timeWindow("secondary", 63.5, 10080, 1, at("2026-11-24T08:00:00Z")),
                  timeWindow("primary", 42, 300, 0, at("2026-11-21T11:15:00Z"))}),
        provider("codex", "Codex", {timeWindow("primary", 12, 300, 0, at("2026-11-21T13:02:00Z"))}, 120),
        provider("openrouter", "OpenRouter", {}, 18.42),
    };
    return s;
}

TEST(WidgetView, CarriesEveryTextInStoredOrder) {
    const auto view = QuotaWidgetView::make(sample(), kNow, "en");
    EXPECT_EQ(view.nextResetAt, at("2026-11-21T11:15:00Z"));
    const auto& claude = view.providers.at(0);
    EXPECT_EQ(claude.topWindowID, "primary");
    EXPECT_EQ(claude.status, "5h 58% left");
    ASSERT_EQ(claude.windows.size(), 2u);
    const auto& week = claude.windows[0];
    EXPECT_EQ(week.id, "secondary");
    EXPECT_EQ(week.label, "1w");
    EXPECT_EQ(week.detailLabel, "Cycle 1w");
    EXPECT_EQ(week.usedText, "63.5%");
    EXPECT_EQ(week.remainingText, "36.5%");
    EXPECT_DOUBLE_EQ(week.progress, 0.635);
    EXPECT_EQ(week.resetText, "refresh in 3d");
    EXPECT_EQ(week.resetCompactText, "in 3d");
    EXPECT_EQ(week.resetSummaryText, "refresh in 3d · 08:00");
    EXPECT_EQ(view.providers[1].creditsText, "Credits 120");
    EXPECT_FALSE(view.providers[1].balanceText);
    EXPECT_EQ(view.providers[2].creditsText, "Credits 18.42");
    EXPECT_TRUE(view.providers[2].balanceText);
    EXPECT_FALSE(view.providers[2].topWindowID);

    const auto chinese = QuotaWidgetView::make(sample(), kNow, "zh-Hans");
    EXPECT_EQ(chinese.providers[0].windows[1].detailLabel, "会话 5h");
    EXPECT_EQ(chinese.providers[0].windows[1].resetCompactText, "2 小时后");
    EXPECT_EQ(chinese.providers[1].creditsText, "积分 120");
}

TEST(WidgetView, JsonHasTheRequiredKeysAndLeavesOutAbsentValues) {
    auto snapshot = sample();
    snapshot.providers[1].windows[0].resetsAt.reset();
    const auto doc = json::parse(json::encode(QuotaWidgetView::make(snapshot, kNow, "en")));
    const auto& root = doc.as_object();
    for (const char* key : {"generatedAt", "nextResetAt", "providers"}) EXPECT_TRUE(root.contains(key)) << key;
    const auto& claude = root.at("providers").as_array()[0].as_object();
    for (const char* key : {"id", "displayName", "quotaStrategy", "status", "topWindowID", "windows"}) {
        EXPECT_TRUE(claude.contains(key)) << key;
    }
    EXPECT_FALSE(claude.contains("creditsText"));
    const auto& window = claude.at("windows").as_array()[0].as_object();
    for (const char* key : {"id", "semantic", "label", "detailLabel", "usedPercent", "usedText", "remainingPercent",
                            "remainingText", "progress", "resetsAt", "resetText", "resetCompactText", "resetSummaryText"}) {
        EXPECT_TRUE(window.contains(key)) << key;
    }
    EXPECT_EQ(window.at("resetsAt").as_string(), "2026-11-24T08:00:00Z");
    const auto& codexWindow = root.at("providers").as_array()[1].at("windows").as_array()[0].as_object();
    EXPECT_FALSE(codexWindow.contains("resetsAt"));
    EXPECT_EQ(codexWindow.at("resetText").as_string(), "-");
}

TEST(WidgetText, AlignsOneLinePerProvider) {
    // Claude's weekly window has less left than its top (5h) window, so it makes the headline.
    const auto lines = QuotaWidgetText::providerLines(QuotaWidgetView::make(sample(), kNow, "en"));
    EXPECT_EQ(lines,
              "Claude      1w  36.5% left  ·  refresh in 3d  ·  5% ahead · runs out ~Mon 17:32, 14 h before reset\n"
              "Codex       5h    88% left  ·  refresh in 4h  ·  Credits 120  ·  17% behind\n"
              "OpenRouter  Balance $18.42\n");
    const auto chinese = QuotaWidgetText::providerLines(QuotaWidgetView::make(sample(), kNow, "zh-Hans"));
    EXPECT_EQ(chinese,
              "Claude      1w  剩余 36.5%  ·  3 天后刷新  ·  比均速快 5% · 约 周一 17:32 用完，比重置早 14 小时\n"
              "Codex       5h    剩余 88%  ·  4 小时后刷新  ·  积分 120  ·  比均速慢 17%\n"
              "OpenRouter  余额 $18.42\n");
}

// A provider without windows shows its local day; one with windows, or with nothing used today,
// keeps its 30-day usage.
TEST(WidgetText, ProvidersWithoutWindowsShowTheirDay) {
    const auto withUsage = [](ProviderQuota p, std::vector<QuotaDailyTokenEntry> days) {
        p.tokenUsage = QuotaTokenUsageSummary{std::nullopt, std::nullopt, 7.5, 3'100'000};
        p.dailyTokenUsage = std::move(days);
        return p;
    };
    QuotaSnapshot s;
    s.generatedAt = kNow;
    s.providers = {
        withUsage(provider("claude", "Claude", {timeWindow("primary", 42, 300, 0, at("2026-11-21T11:15:00Z"))}),
                  {{"2026-11-21", 1.25, 400'000}}),
        withUsage(provider("amp", "Amp", {}), {{"2026-11-20", 3.0, 900'000}, {"2026-11-21", 0.84, 1'234'000}}),
        withUsage(provider("qwen", "Qwen", {}), {{"2026-11-21", 0, 33'000}}),  // nothing priced today
        withUsage(provider("goose", "Goose", {}), {{"2026-11-20", 2.0, 50'000}}),  // only yesterday
    };
    QuotaWidgetUsageNotes notes;
    notes.today = "2026-11-21";
    notes.unpricedToday = {{"qwen", 33'000}};
    notes.unpricedLast30Days = {{"qwen", 33'000}};
    const auto english = QuotaWidgetView::make(s, kNow, "en", {}, notes);
    EXPECT_EQ(english.providers[0].usageText, "3.1M tokens · $7.50 in 30 days");
    EXPECT_EQ(english.providers[1].usageText, "1.2M tokens · $0.84 today");
    EXPECT_EQ(english.providers[2].usageText, "33.0K tokens today (33.0K unpriced)");
    EXPECT_EQ(english.providers[3].usageText, "3.1M tokens · $7.50 in 30 days");
    const auto chinese = QuotaWidgetView::make(s, kNow, "zh-Hans", {}, notes);
    EXPECT_EQ(chinese.providers[1].usageText, "今天 1.2M 令牌 · $0.84");
    EXPECT_EQ(chinese.providers[2].usageText, "今天 33.0K 令牌（33.0K 未计价）");
    EXPECT_NE(QuotaWidgetText::providerLines(english).find("Amp     1.2M tokens · $0.84 today\n"), std::string::npos);
    // Without a day to go by (no calendar), the 30-day line stays.
    EXPECT_EQ(QuotaWidgetView::make(s, kNow, "en").providers[1].usageText, "3.1M tokens · $7.50 in 30 days");
}

TEST(WidgetText, NamesFromFilesStayOnOneLineAndCreditsKeepTheirColumn) {
    auto snapshot = sample();
    snapshot.providers[0].displayName = "Clau\nde";
    snapshot.providers[0].windows[1].label = "Line1\r\nLine2";
    snapshot.providers[0].windows[1].windowMinutes = 0;  // so the label is the stored one
    snapshot.providers[0].windows[1].semantic = QuotaWindowSemantic::generic;
    snapshot.providers[0].windows[1].resetsAt.reset();
    snapshot.providers[0].creditsRemaining = 7;
    snapshot.providers[0].windows[0].usedPercent = 10;  // the generic window keeps the headline
    const auto lines = QuotaWidgetText::providerLines(QuotaWidgetView::make(snapshot, kNow, "en"));
    EXPECT_EQ(lines,
              "Clau de     Line1  Line2  58% left                    ·  Credits 7\n"
              "Codex       5h            88% left  ·  refresh in 4h  ·  Credits 120  ·  17% behind\n"
              "OpenRouter  Balance $18.42\n");
}

TEST(Waybar, ClassAndPercentageFollowTheLowestRemainingWindow) {
    const std::pair<double, const char*> cases[] = {
        {74, "ok"},         {74.6, "warning"},  {75, "warning"},   {89.5, "warning"},
        {89.6, "critical"}, {90, "critical"},   {100, "critical"}, {130, "critical"}};  // by the number shown
    for (const auto& [used, cssClass] : cases) {
        auto snapshot = sample();
        snapshot.providers[1].windows[0].usedPercent = used;
        const auto module = QuotaWidgetText::waybarModule(QuotaWidgetView::make(snapshot, kNow, "en"));
        EXPECT_EQ(module.cssClass, cssClass) << used;
        EXPECT_EQ(module.text, "Codex 5h " + QuotaFormatting::percent(std::max(0.0, 100 - used)));
        EXPECT_EQ(module.percentage, int(std::round(std::max(0.0, 100 - used))));
    }
}

TEST(Waybar, TooltipListsEveryProviderAndTheJsonIsOneLine) {
    const auto module = QuotaWidgetText::waybarModule(QuotaWidgetView::make(sample(), kNow, "en"));
    EXPECT_EQ(module.text, "Claude 1w 36.5%");
    EXPECT_EQ(module.percentage, 37);
    EXPECT_EQ(module.tooltip,
              "Claude 1w 36.5% left · refresh in 3d · 5% ahead · runs out ~Mon 17:32, 14 h before reset\n"
              "  5h 58% left · refresh in 2h · 23% behind\n"
              "Codex 5h 88% left · refresh in 4h · Credits 120 · 17% behind\nOpenRouter Balance $18.42");
    const std::string line = QuotaWidgetText::waybarJSON(module);
    EXPECT_EQ(line.find('\n'), std::string::npos);
    EXPECT_EQ(json::parse(line).at("class").as_string(), "ok");
}

TEST(Waybar, WithoutWindowsThereIsNoPercentage) {
    QuotaSnapshot s;
    s.providers = {provider("openrouter", "OpenRouter", {}, 5)};
    const auto module = QuotaWidgetText::waybarModule(QuotaWidgetView::make(s, kNow, "en"));
    EXPECT_EQ(module.text, "OpenRouter Balance $5.00");
    EXPECT_EQ(module.cssClass, "ok");
    EXPECT_FALSE(module.percentage);
    EXPECT_FALSE(json::parse(QuotaWidgetText::waybarJSON(module)).as_object().contains("percentage"));
    EXPECT_EQ(QuotaWidgetText::waybarModule(QuotaWidgetView::make(QuotaSnapshot{}, kNow, "en")).text, "-");
}

}  // namespace
}  // namespace gaugepoint
