#include <gtest/gtest.h>

#include <atomic>
#include <chrono>

#include "TestSupport.hpp"
#include "gaugepoint/widgets/QuotaProductCatalog.hpp"
#include "gaugepoint/widgets/TallybarSnapshotImporter.hpp"

namespace gaugepoint {
namespace {

using testing::at;
using testing::ScratchDirectory;

QuotaSnapshot importText(const std::string& json) {
    return TallybarSnapshotImporter::normalize(json::decode<tallybar::RawSnapshot>(json));
}

// A document with one entry built from `entry` (the inside of the entry object).
std::string document(const std::string& entry) {
    return R"({"generatedAt":"2026-11-21T09:00:00Z","entries":[{)" + entry + "}]}";
}

ProviderQuota importOne(const std::string& entry) {
    const auto snapshot = importText(document(entry));
    EXPECT_EQ(snapshot.providers.size(), 1u);
    return snapshot.providers.at(0);
}

TEST(TallybarImport, ProviderIdsAreNormalised) {
    for (const char* raw : {" Claude_Code ", "claude_code", "claude-code", "Claude Code", "CLAUDE"}) {
        EXPECT_EQ(TallybarSnapshotImporter::normalizedProviderID(raw), "claude") << raw;
    }
    EXPECT_EQ(TallybarSnapshotImporter::normalizedProviderID("Open_Router"), "open-router");
    const auto p = importOne(R"("provider":" Claude_Code ")");
    EXPECT_EQ(p.id, "claude");
    EXPECT_EQ(p.displayName, "Claude");
}

TEST(TallybarImport, StrategyFollowsProviderAndWindowCount) {
    using S = QuotaProviderStrategy;
    const std::string w = R"({"usedPercent":10})";
    const std::string two = R"("primary":)" + w + R"(,"secondary":)" + w;
    const std::string one = R"("primary":)" + w;
    struct Case { std::string entry; S expected; };
    const Case cases[] = {
        {R"("provider":"claude",)" + two, S::multiWindow},     {R"("provider":"codex",)" + one, S::singleWindow},
        {R"("provider":"claude")", S::creditsOnly},            {R"("provider":"openrouter",)" + two, S::creditsOnly},
        {R"("provider":"cursor",)" + two, S::multiCategory},   {R"("provider":"cursor",)" + one, S::singleWindow},
        {R"("provider":"cursor")", S::creditsOnly},            {R"("provider":"gemini",)" + two, S::multiModel},
        {R"("provider":"antigravity",)" + one, S::singleWindow}, {R"("provider":"acme")", S::unknown},
        {R"("provider":"acme","creditsRemaining":5)", S::creditsOnly}, {R"("provider":"acme",)" + two, S::multiWindow},
        {R"("provider":"acme","tertiary":)" + w, S::singleWindow},
    };
    for (const auto& c : cases) EXPECT_EQ(importOne(c.entry).quotaStrategy, c.expected) << c.entry;
}

TEST(TallybarImport, TimeWindowsAreRollingUpToSixHours) {
    using S = QuotaWindowSemantic;
    const std::pair<const char*, S> cases[] = {
        {R"(,"windowMinutes":300)", S::rollingSession}, {R"(,"windowMinutes":360)", S::rollingSession},
        {R"(,"windowMinutes":361)", S::fixedCycle},     {R"(,"windowMinutes":10080)", S::fixedCycle},
        {"", S::fixedCycle},
    };
    for (const auto& [minutes, expected] : cases) {
        const auto p = importOne(std::string(R"("provider":"claude","primary":{"usedPercent":1)") + minutes + "}");
        EXPECT_EQ(p.windows.at(0).semantic, expected) << minutes;
    }
}

TEST(TallybarImport, WindowsCarryTheirSlotFieldsInImportanceOrder) {
    const auto p = importOne(R"("provider":"claude",
        "tertiary":{"usedPercent":81,"modelSlug":"opus","windowMinutes":10080},
        "primary":{"usedPercent":42.5,"resetsAt":"2026-11-21T11:00:00Z","windowMinutes":300,"resetDescription":"5-hour"},
        "secondary":{"label":"All models","usedPercent":63,"windowMinutes":10080})");
    ASSERT_EQ(p.windows.size(), 3u);
    EXPECT_EQ(p.windows[0].id, "primary");
    EXPECT_EQ(p.windows[0].importance, 0);
    EXPECT_EQ(p.windows[0].usedPercent, 42.5);
    EXPECT_EQ(p.windows[0].resetsAt, at("2026-11-21T11:00:00Z"));
    EXPECT_EQ(p.windows[0].sourceDescription, "5-hour");
    EXPECT_EQ(p.windows[0].widgetLabel(), "5h");
    EXPECT_EQ(p.windows[1].label, "All models");
    EXPECT_EQ(p.windows[2].id, "tertiary");
    EXPECT_EQ(p.windows[2].widgetLabel(), "opus");
    EXPECT_EQ(p.topWindow()->id, "primary");
}

TEST(TallybarImport, ModelAndCategoryProvidersGetTheirSemantics) {
    using S = QuotaWindowSemantic;
    const auto gemini = importOne(R"("provider":"gemini",
        "primary":{"usedPercent":77,"modelSlug":"gemini-2.5-pro","windowMinutes":1440},
        "secondary":{"usedPercent":20,"modelSlug":"gemini-2.5-flash"})");
    EXPECT_EQ(gemini.windows[0].semantic, S::perModel);
    EXPECT_EQ(gemini.windows[1].widgetLabel(), "gemini-2.5-flash");
    const auto copilot = importOne(R"("provider":"copilot","primary":{"usedPercent":91},"secondary":{"usedPercent":3})");
    EXPECT_EQ(copilot.windows[0].semantic, S::usageCategory);
    EXPECT_EQ(copilot.windows[0].widgetLabel(), "Premium requests");
    EXPECT_EQ(copilot.windows[1].widgetLabel(), "Chat");
    const auto kilo = importOne(R"("provider":"kilo","primary":{"usedPercent":40})");
    EXPECT_EQ(kilo.windows[0].semantic, S::creditsBalance);
    EXPECT_EQ(kilo.windows[0].localizedLabel("zh"), "积分");
    const auto kiro = importOne(R"("provider":"Kiro","primary":{"label":"Vibe","usedPercent":40,"windowMinutes":43200})");
    EXPECT_EQ(kiro.windows[0].semantic, S::usageCategory);
    EXPECT_EQ(kiro.windows[0].widgetLabel(), "Vibe");
    EXPECT_EQ(importOne(R"("provider":"warp","primary":{"usedPercent":1})").windows[0].semantic, S::usageCategory);
}

TEST(TallybarImport, UsageIsCopiedAndAllThreeCostSpellingsRead) {
    const auto p = importOne(R"("provider":"claude","tokenUsage":{"sessionTokens":5,"last30DaysCostUSD":2.5},
        "dailyUsage":[{"dayKey":"2026-11-19","costUSD":1.5,"totalTokens":1},
                      {"dayKey":"2026-11-20","costUsd":1.5,"totalTokens":2},
                      {"dayKey":"2026-11-21","cost_usd":1.5,"totalTokens":3}])");
    ASSERT_TRUE(p.tokenUsage);
    EXPECT_EQ(p.tokenUsage->sessionTokens, 5);
    EXPECT_EQ(p.tokenUsage->last30DaysCostUSD, 2.5);
    EXPECT_FALSE(p.tokenUsage->sessionCostUSD);
    ASSERT_TRUE(p.dailyTokenUsage);
    ASSERT_EQ(p.dailyTokenUsage->size(), 3u);
    for (const auto& day : *p.dailyTokenUsage) EXPECT_EQ(day.costUSD, 1.5);
    EXPECT_EQ(p.dailyTokenUsage->at(2), (QuotaDailyTokenEntry{"2026-11-21", 1.5, 3}));
    EXPECT_FALSE(importOne(R"("provider":"x","dailyUsage":[])").dailyTokenUsage);
    EXPECT_FALSE(importOne(R"("provider":"x")").tokenUsage);
}

TEST(TallybarImport, DocumentLevelRules) {
    const auto empty = importText(R"({"entries":[],"generatedAt":"2026-11-21T09:00:00+01:00"})");
    EXPECT_TRUE(empty.providers.empty());
    EXPECT_EQ(empty.generatedAt, at("2026-11-21T08:00:00Z"));
    EXPECT_EQ(empty.version, 1);
    EXPECT_FALSE(empty.source);
    const auto missingCost = [] {
        importText(document(R"("provider":"x","dailyUsage":[{"dayKey":"d","totalTokens":1}])"));
    };
    try {
        missingCost();
        FAIL();
    } catch (const json::DecodingError& e) {
        EXPECT_EQ(e.path(), "entries[0].dailyUsage[0].costUSD");
    }
}

TEST(ProductCatalog, KnownNamesAndReadableFallbacks) {
    EXPECT_EQ(QuotaProductCatalog::displayName("openrouter"), "OpenRouter");
    EXPECT_EQ(QuotaProductCatalog::displayName("Antigravity"), "Antigravity");
    EXPECT_EQ(QuotaProductCatalog::displayName("kilo"), "Kilo Code");
    EXPECT_EQ(QuotaProductCatalog::displayName("my_new-provider"), "My New Provider");
    EXPECT_EQ(QuotaProductCatalog::displayName("  "), "Unknown");
}

// ---- reading the file ----

constexpr const char* kValid = R"({"generatedAt":"2026-11-21T09:00:00Z","entries":[{"provider":"codex"}]})";

struct CountingImporter {
    std::shared_ptr<std::atomic<int>> reads = std::make_shared<std::atomic<int>>(0);
    TallybarSnapshotImporter importer;
    CountingImporter() {
        importer.retryDelay = std::chrono::milliseconds(150);
        importer.readFile = [reads = reads](const std::filesystem::path& p) {
            ++*reads;
            return readFileNoticingRewrites(p, InputLimit::document("a widget snapshot file"));
        };
    }
};

TEST(TallybarLoad, ReadsOnceWhenTheFileIsSettled) {
    ScratchDirectory dir;
    testing::writeFile(dir / "widget-snapshot.json", kValid);
    CountingImporter c;
    EXPECT_EQ(c.importer.loadAndNormalize(dir / "widget-snapshot.json").providers.at(0).id, "codex");
    EXPECT_EQ(*c.reads, 1);
}

TEST(TallybarLoad, RetriesOnceAFileCaughtMidRewrite) {
    ScratchDirectory dir;
    const auto path = dir / "widget-snapshot.json";
    testing::writeFile(path, "");  // the sibling has truncated the file and not yet refilled it
    CountingImporter c;
    // The sibling finishes its rewrite just after the first read, so only a retry can see it.
    c.importer.readFile = [&, reads = c.reads](const std::filesystem::path& p) {
        auto contents = readFileNoticingRewrites(p, InputLimit::document("a widget snapshot file"));
        if (++*reads == 1) testing::writeFile(path, kValid);
        return contents;
    };
    const auto started = std::chrono::steady_clock::now();
    const auto snapshot = c.importer.loadAndNormalize(path);
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(150));
    EXPECT_EQ(snapshot.providers.size(), 1u);
    EXPECT_EQ(*c.reads, 2);
}

TEST(TallybarLoad, GivesUpAfterTheOneRetry) {
    ScratchDirectory dir;
    testing::writeFile(dir / "widget-snapshot.json", "");
    CountingImporter c;
    try {
        c.importer.loadAndNormalize(dir / "widget-snapshot.json");
        FAIL();
    } catch (const TallybarSnapshotImportError& e) {
        EXPECT_EQ(e.kind(), TallybarSnapshotImportError::Kind::beingRewritten);
        EXPECT_NE(std::string(e.what()).find("widget-snapshot.json"), std::string::npos);
    }
    EXPECT_EQ(*c.reads, 2);
}

TEST(TallybarLoad, MissingAndMalformedFilesFailWithoutRetry) {
    ScratchDirectory dir;
    CountingImporter c;
    try {
        c.importer.loadAndNormalize(dir / "absent.json");
        FAIL();
    } catch (const TallybarSnapshotImportError& e) {
        EXPECT_EQ(e.kind(), TallybarSnapshotImportError::Kind::unreadable);
        EXPECT_EQ(std::string(e.what()), "cannot read " + (dir / "absent.json").string() + ": No such file or directory");
    }
    EXPECT_EQ(*c.reads, 1);
    testing::writeFile(dir / "bad.json", R"({"generatedAt":"2026-11-21T09:00:00Z","entries":[{"provider":"x",)");
    try {
        c.importer.loadAndNormalize(dir / "bad.json");
        FAIL();
    } catch (const TallybarSnapshotImportError& e) {
        EXPECT_EQ(e.kind(), TallybarSnapshotImportError::Kind::malformed);
        EXPECT_NE(std::string(e.what()).find("bad.json: invalid JSON at line 1, column"), std::string::npos) << e.what();
    }
    EXPECT_EQ(*c.reads, 2);
}

}  // namespace
}  // namespace gaugepoint
