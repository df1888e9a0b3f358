#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

#include "StoreTestSupport.hpp"
#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/stores/QuotaSessionTokenLedger.hpp"

namespace gaugepoint {
namespace {

using testing::at;
using testing::configurationIn;
using testing::RawDatabase;
using testing::ScratchDirectory;

QuotaSnapshot usageSnapshot(std::optional<std::string> source, Date generatedAt,
                            std::vector<std::pair<std::string, std::vector<QuotaDailyTokenEntry>>> providers) {
    QuotaSnapshot s;
    s.generatedAt = generatedAt;
    if (source) s.source = QuotaSnapshotSource{*source, "Mac", "mac.local", "macOS"};
    for (auto& [id, days] : providers) {
        ProviderQuota p;
        p.id = id;
        p.displayName = id == "claude" ? "Claude" : "";
        p.dailyTokenUsage = days;
        s.providers.push_back(p);
    }
    ProviderQuota withoutUsage;
    withoutUsage.id = "cursor";
    s.providers.push_back(withoutUsage);
    return s;
}

class TokenLedger : public ::testing::Test {
protected:
    void SetUp() override { ::setenv("TZ", "UTC", 1); }
    ScratchDirectory dir;
    QuotaSyncConfiguration config = configurationIn(dir, at("2026-11-21T12:00:00Z"));
    QuotaSessionTokenLedger ledger{config};
};

TEST_F(TokenLedger, AnOlderOrEquallyOldRecordingNeverOverwritesANewerOne) {
    const auto at10 = usageSnapshot("mac", at("2026-11-21T10:00:00Z"),
                                    {{"claude", {{"2026-11-20", 1.5, 1000}, {"2026-11-21", 0.5, 400}}}, {"codex", {{"2026-11-21", 2, 50}}}});
    EXPECT_EQ(ledger.upsert(at10), 3);
    EXPECT_EQ(ledger.upsert(at10), 0);  // the same snapshot again changes nothing

    auto older = at10;
    older.generatedAt = at("2026-11-21T09:00:00Z");
    (*older.providers[0].dailyTokenUsage)[1].totalTokens = 1;
    EXPECT_EQ(ledger.upsert(older), 0);
    auto newer = at10;
    newer.generatedAt = at("2026-11-21T11:00:00Z");
    (*newer.providers[0].dailyTokenUsage)[1] = {"2026-11-21", 0.75, 600};
    newer.providers.resize(1);
    EXPECT_EQ(ledger.upsert(newer), 2);

    auto summary = ledger.dailySummary("mac", 7);  // newest day first; providers of one day in any order
    std::sort(summary.begin(), summary.end(), [](const auto& a, const auto& b) { return a.totalTokens < b.totalTokens; });
    EXPECT_EQ(summary, (std::vector<QuotaDailyTokenEntry>{{"2026-11-21", 2, 50}, {"2026-11-21", 0.75, 600}, {"2026-11-20", 1.5, 1000}}));
    EXPECT_EQ(ledger.dailySummary("mac", "codex", 7), (std::vector<QuotaDailyTokenEntry>{{"2026-11-21", 2, 50}}));
    RawDatabase raw{ledger.databaseURL()};
    EXPECT_EQ(raw.column("SELECT id || '|' || IFNULL(provider_name, 'NULL') || '|' || recorded_at FROM provider_token_snapshot ORDER BY id"),
              (std::vector<std::string>{"mac_claude_2026-11-20|Claude|1795258800.0", "mac_claude_2026-11-21|Claude|1795258800.0",
                                        "mac_codex_2026-11-21|NULL|1795255200.0"}));
    EXPECT_EQ(QuotaSessionTokenLedger::rowID("", "claude", "2026-11-21"), "unknown_claude_2026-11-21");
    ledger.upsert(usageSnapshot(std::nullopt, at("2026-11-21T10:00:00Z"), {{"gemini", {{"2026-11-21", 0, 9}}}}));
    EXPECT_EQ(ledger.dailySummary("unknown", 1).size(), 1u);
}

TEST_F(TokenLedger, SummariesStartDaysMinusOneBeforeTodayAndTrimKeepsToday) {
    std::vector<QuotaDailyTokenEntry> days;
    for (int d = 10; d <= 21; ++d) days.push_back({"2026-11-" + std::to_string(d), double(d), d});
    ledger.upsert(usageSnapshot("mac", at("2026-11-21T10:00:00Z"), {{"claude", days}}));
    const auto week = ledger.dailySummary("mac", 7);
    ASSERT_EQ(week.size(), 7u);
    EXPECT_EQ(week.front().dayKey, "2026-11-21");
    EXPECT_EQ(week.back().dayKey, "2026-11-15");
    EXPECT_TRUE(ledger.dailySummary("other", 7).empty());

    EXPECT_EQ(ledger.trimOldEntries(3600), 11);  // an interval inside today: only earlier days go
    EXPECT_EQ(ledger.dailySummary("mac", 30).size(), 1u);
    EXPECT_EQ(ledger.clear(), 1);
}

// Day keys are the local days of the snapshot's entries; the summary's first day is a local day
// too, however long the days in between were.
TEST_F(TokenLedger, DayBoundariesAreLocalAcrossClockChanges) {
    ::setenv("TZ", "America/New_York", 1);
    EXPECT_EQ(QuotaSessionTokenLedger::dayKey(at("2026-11-21T04:59:59Z")), "2026-11-20");  // 23:59:59 local
    EXPECT_EQ(QuotaSessionTokenLedger::dayKey(at("2026-11-21T05:00:00Z")), "2026-11-21");
    ledger.upsert(usageSnapshot("mac", at("2026-11-02T12:00:00Z"),
                                {{"claude", {{"2026-10-31", 1, 1}, {"2026-11-01", 1, 1}, {"2026-11-02", 1, 1}}}}));
    ledger.upsert(usageSnapshot("mac", at("2026-03-09T12:00:00Z"),
                                {{"claude", {{"2026-03-07", 1, 1}, {"2026-03-08", 1, 1}, {"2026-03-09", 1, 1}}}}));
    // Just after local midnight of 2026-11-02, after the 25-hour day: two days are 11-01 and 11-02.
    const QuotaSessionTokenLedger afterLongDay{configurationIn(dir, at("2026-11-02T05:00:30Z"))};
    EXPECT_EQ(afterLongDay.dailySummary("mac", 2).back().dayKey, "2026-11-01");
    // Just before local midnight ending 2026-03-09, after the 23-hour day.
    const QuotaSessionTokenLedger afterShortDay{configurationIn(dir, at("2026-03-10T03:59:59Z"))};
    const auto summary = afterShortDay.dailySummary("mac", 2);
    ASSERT_FALSE(summary.empty());
    EXPECT_EQ(summary.back().dayKey, "2026-03-08");
    EXPECT_EQ(afterShortDay.trimOldEntries(24 * 3600), 1);  // now - 24 h is 03-08 23:59:59 local: only 03-07 goes
    ::setenv("TZ", "UTC", 1);
}

TEST_F(TokenLedger, BringsTheEarlierCloudDocumentOverOnce) {
    ScratchDirectory cloud;
    auto withCloud = configurationIn(dir);
    withCloud.ubiquityDirectory = cloud.path();
    std::filesystem::create_directories(cloud / "Documents");
    QuotaTokenLedgerDocument legacy{1, {{"mac", "claude", "Claude", "2026-11-20", at("2026-11-20T10:00:00Z"), 77, 0.25}}};
    testing::writeFile(cloud / "Documents" / "quota-token-ledger.json", json::encode(legacy));
    const QuotaSessionTokenLedger fresh{withCloud};
    EXPECT_EQ(fresh.dailySummary("mac", 7), (std::vector<QuotaDailyTokenEntry>{{"2026-11-20", 0.25, 77}}));
    EXPECT_TRUE(withCloud.userDefaults->boolValue(QuotaSessionTokenLedger::migrationMarkerKey));
    fresh.clear();
    EXPECT_TRUE(QuotaSessionTokenLedger{withCloud}.dailySummary("mac", 7).empty());  // not brought over again
}

}  // namespace
}  // namespace gaugepoint
