#include <gtest/gtest.h>

#include <unordered_set>

#include "TestSupport.hpp"
#include "gaugepoint/model/QuotaSnapshot.hpp"
#include "gaugepoint/platform/Json.hpp"

namespace gaugepoint {
namespace {

using testing::at;

QuotaWindow window(std::string id, double used, std::int64_t importance = 0,
                   QuotaWindowSemantic semantic = QuotaWindowSemantic::rollingSession) {
    QuotaWindow w;
    w.id = std::move(id);
    w.label = w.id;
    w.usedPercent = used;
    w.importance = importance;
    w.semantic = semantic;
    return w;
}

TEST(QuotaWindow, ProgressIsClampedButRemainingOnlyFloored) {
    struct Case { double used, progress, remaining; };
    for (const auto& c : {Case{42, 0.42, 58}, Case{150, 1, 0}, Case{-20, 0, 120}, Case{0, 0, 100}, Case{100, 1, 0}}) {
        const auto w = window("w", c.used);
        EXPECT_DOUBLE_EQ(w.progress(), c.progress) << c.used;
        EXPECT_DOUBLE_EQ(w.remainingPercent(), c.remaining) << c.used;
    }
}

TEST(QuotaWindow, WidgetLabelPrefersSlugThenLengthThenLabel) {
    using S = QuotaWindowSemantic;
    struct Case { S semantic; const char* label; std::optional<std::int64_t> minutes; std::optional<std::string> slug; const char* expected; };
    const Case cases[] = {
        {S::rollingSession, "Session", 300, {}, "5h"},     {S::rollingSession, "x", 1440, {}, "1d"},
        {S::rollingSession, "x", 2880, {}, "2d"},          {S::fixedCycle, "x", 10080, {}, "1w"},
        {S::fixedCycle, "x", 20160, {}, "2w"},             {S::rollingSession, "x", 45, {}, "45m"},
        {S::rollingSession, "x", 120, {}, "2h"},           {S::rollingSession, "x", 90, {}, "90m"},
        {S::fixedCycle, " Monthly ", {}, {}, "Monthly"},   {S::rollingSession, "  ", {}, {}, "-"},
        {S::usageCategory, " Chat ", 300, {}, " Chat "},   {S::creditsBalance, "Credits", {}, {}, "Credits"},
        {S::perModel, "Opus", 10080, {}, "Opus"},          {S::perModel, "Opus", 10080, "opus-4", "opus-4"},
        {S::generic, " Pro ", 300, {}, "Pro"},             {S::generic, "  ", {}, {}, "-"},
        {S::generic, "", 60, {}, "1h"},                    {S::rollingSession, "x", 300, "", "5h"},
    };
    for (const auto& c : cases) {
        auto w = window("w", 0, 0, c.semantic);
        w.label = c.label;
        w.windowMinutes = c.minutes;
        w.modelSlug = c.slug;
        EXPECT_EQ(w.widgetLabel(), c.expected) << "label '" << c.label << "'";
    }
}

TEST(QuotaWindow, LocalizedLabelInBothLanguages) {
    using S = QuotaWindowSemantic;
    auto w = window("w", 0, 0, S::rollingSession);
    w.windowMinutes = 300;
    EXPECT_EQ(w.localizedLabel("en"), "Session 5h");
    EXPECT_EQ(w.localizedLabel("zh-Hans"), "会话 5h");
    w.semantic = S::fixedCycle;
    w.windowMinutes = 10080;
    EXPECT_EQ(w.localizedLabel("en-GB"), "Cycle 1w");
    EXPECT_EQ(w.localizedLabel("zh"), "周期 1w");
    w.semantic = S::creditsBalance;
    EXPECT_EQ(w.localizedLabel("en"), "Credits");
    EXPECT_EQ(w.localizedLabel("zh-Hant"), "积分");
    w.semantic = S::usageCategory;
    w.label = " Chat ";
    EXPECT_EQ(w.localizedLabel("zh"), " Chat ");
    w.semantic = S::generic;
    EXPECT_EQ(w.localizedLabel("en"), "Chat");
    w.modelSlug = "gpt-5";
    EXPECT_EQ(w.localizedLabel("zh"), "gpt-5");
}

TEST(ProviderQuota, TopWindowIsMostImportantThenFullest) {
    ProviderQuota p;
    EXPECT_FALSE(p.topWindow());
    EXPECT_FALSE(p.hasQuotaWindows());
    p.windows = {window("a", 30), window("b", 70)};
    EXPECT_EQ(p.topWindow()->id, "b");
    p.windows = {window("a", 90, 1), window("b", 10, 0)};
    EXPECT_EQ(p.topWindow()->id, "b");
    p.windows = {window("a", 50), window("b", 50), window("c", 50)};  // ties keep stored order
    EXPECT_EQ(p.topWindow()->id, "a");
    EXPECT_TRUE(p.hasQuotaWindows());
    EXPECT_EQ(p.windows[0].id, "a");  // the stored order is untouched
}

TEST(QuotaSnapshot, NextResetIsTheEarliestIncludingPastDates) {
    QuotaSnapshot s;
    s.providers.resize(2);
    s.providers[0].windows = {window("a", 0), window("b", 0)};
    s.providers[1].windows = {window("c", 0)};
    EXPECT_FALSE(s.nextResetAt());
    s.providers[0].windows[1].resetsAt = at("2026-11-22T00:00:00Z");
    s.providers[1].windows[0].resetsAt = at("2020-01-01T00:00:00Z");
    EXPECT_EQ(s.nextResetAt(), at("2020-01-01T00:00:00Z"));
}

TEST(QuotaSnapshot, EmptyIsBuiltOnceAndKept) {
    const QuotaSnapshot& a = QuotaSnapshot::empty();
    EXPECT_EQ(a.version, 1);
    EXPECT_FALSE(a.source);
    EXPECT_TRUE(a.providers.empty());
    EXPECT_EQ(&a, &QuotaSnapshot::empty());
    EXPECT_EQ(a.generatedAt, QuotaSnapshot::empty().generatedAt);
}

constexpr const char* kMinimal = R"({
  "version": 1, "generatedAt": "2026-11-21T13:19:00Z",
  "source": {"sourceID": "mac-1", "sourceName": "Studio", "hostName": "studio.local", "platformLabel": "macOS"},
  "providers": [{"id": "claude", "displayName": "Claude", "quotaStrategy": "multiWindow",
    "windows": [{"id": "primary", "label": "Session", "usedPercent": 42.0, "resetsAt": "2026-11-21T18:00:00Z",
                 "windowMinutes": 300, "importance": 0, "semantic": "rollingSession"},
                {"id": "secondary", "label": "Week", "usedPercent": 10, "importance": 1, "semantic": "fixedCycle"}]}]
})";

TEST(QuotaSnapshotJson, DecodesTheMinimalDocumentAndRoundTrips) {
    const auto s = json::decode<QuotaSnapshot>(kMinimal);
    ASSERT_TRUE(s.source);
    EXPECT_EQ(s.source->hostName, "studio.local");
    ASSERT_EQ(s.providers.size(), 1u);
    const auto& p = s.providers[0];
    EXPECT_FALSE(p.tokenUsage);
    EXPECT_FALSE(p.dailyTokenUsage);
    ASSERT_EQ(p.windows.size(), 2u);
    EXPECT_EQ(p.windows[1].id, "secondary");
    EXPECT_EQ(p.windows[0].windowMinutes, 300);
    EXPECT_EQ(json::decode<QuotaSnapshot>(json::encode(s)), s);
    // Empty optionals are not written at all.
    EXPECT_EQ(json::encode(s).find("modelID"), std::string::npos);
    EXPECT_EQ(json::encode(s).find("null"), std::string::npos);
}

TEST(QuotaSnapshotJson, RejectsUnknownEnumerationsAndMissingKeys) {
    std::string text = kMinimal;
    text.replace(text.find("\"fixedCycle\""), 12, "\"daily\"");
    try {
        json::decode<QuotaSnapshot>(text);
        FAIL();
    } catch (const json::DecodingError& e) {
        EXPECT_EQ(e.path(), "providers[0].windows[1].semantic");
    }
    std::string noStrategy = kMinimal;
    noStrategy.replace(noStrategy.find("\"quotaStrategy\": \"multiWindow\","), 31, "");
    EXPECT_THROW(json::decode<QuotaSnapshot>(noStrategy), json::DecodingError);
    const auto noSource = json::decode<QuotaSnapshot>(R"({"version":1,"generatedAt":"2026-11-21T13:19:00Z","providers":[]})");
    EXPECT_FALSE(noSource.source);
}

TEST(QuotaWindowHash, CoversEveryField) {
    auto a = window("a", 10);
    auto b = a;
    EXPECT_EQ(a, b);
    EXPECT_EQ(std::hash<QuotaWindow>{}(a), std::hash<QuotaWindow>{}(b));
    b.sourceDescription = "from the API";
    EXPECT_NE(a, b);
    std::unordered_set<QuotaWindow> set{a, b};
    auto c = a;
    c.modelSlug = "m";
    set.insert(c);
    auto d = a;
    d.resetsAt = at("2026-11-21T00:00:00Z");
    set.insert(d);
    EXPECT_EQ(set.size(), 4u);
    EXPECT_EQ(set.count(a), 1u);
}

}  // namespace
}  // namespace gaugepoint
