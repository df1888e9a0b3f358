#include <gtest/gtest.h>

#include "ImporterTestSupport.hpp"
#include "gaugepoint/model/QuotaReadingOrigin.hpp"
#include "gaugepoint/reports/ClaudeBlockLimit.hpp"
#include "gaugepoint/reports/LocalQuotaSnapshot.hpp"
#include "gaugepoint/reports/UsageBlocks.hpp"
#include "gaugepoint/reports/UsagePeriods.hpp"
#include "gaugepoint/reports/UsageReportJson.hpp"
#include "gaugepoint/stores/QuotaHistoryStore.hpp"
#include "gaugepoint/stores/QuotaSessionTokenLedger.hpp"

namespace gaugepoint {
namespace {

using testing::at;
namespace bj = boost::json;

// The sample tree, scanned once for every test here.
class SampleReports : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        tree = new testing::LogTree;
        tree->scan();
    }
    static void TearDownTestSuite() {
        delete tree;
        tree = nullptr;
    }
    static LocalCalendar zone(const char* id) { return *LocalCalendar::inTimeZone(id, LocalCalendar::Kind::gregorian); }
    static inline testing::LogTree* tree = nullptr;
};

// A report row as the reference writes it: the four counts and the models.
bj::object countsOf(const UsageTotals& totals) {
    return {{"inputTokens", totals.tokens.inputTokens}, {"outputTokens", totals.tokens.outputTokens},
            {"cacheCreationTokens", totals.tokens.cacheWriteTokens}, {"cacheReadTokens", totals.tokens.cacheReadTokens},
            {"totalTokens", totals.tokens.totalTokens()}};
}

bj::object withoutKeys(bj::object row, std::initializer_list<const char*> keys) {
    for (const char* key : keys) row.erase(key);
    return row;
}

TEST_F(SampleReports, DailyRowsEqualTheReferenceInEachZoneItLists) {
    const auto expected = testing::expectedDocument("expected-daily-UTC.json").at("daily");
    for (const char* zoneID : {"UTC", "America/New_York"}) {
        for (const char* provider : {"claude", "codex", "gemini"}) {
            UsageReportFilter filter;
            filter.providerID = provider;
            const auto report = usageByPeriod(tree->usage(), zone(zoneID), UsagePeriod::daily, filter);
            bj::array rows;
            for (const auto& row : report.rows) {
                auto object = countsOf(row.totals);
                object["date"] = row.period;
                bj::array models;
                for (const auto& m : row.totals.modelsUsed) models.emplace_back(m);
                object["modelsUsed"] = models;
                rows.push_back(object);
            }
            bj::array reference;
            for (const auto& row : expected.at(provider).at(zoneID).as_array()) reference.push_back(row);
            EXPECT_EQ(rows, reference) << provider << " in " << zoneID;
        }
    }
}

TEST_F(SampleReports, SessionsEqualTheReference) {
    const auto expected = testing::expectedDocument("expected-sessions.json").at("sessions");
    const auto report = usageBySession(tree->usage(), zone("UTC"), {});
    std::map<std::string, bj::array> byProvider;
    for (const auto& row : report.rows) {
        auto object = countsOf(row.totals);
        object["sessionId"] = row.sessionID;
        object["lastActivity"] = formatISO8601Milliseconds(row.lastActivity);
        byProvider[row.providerID].push_back(object);
    }
    for (const char* provider : {"claude", "codex", "gemini"}) {
        auto& ours = byProvider[provider];
        std::sort(ours.begin(), ours.end(), [](const auto& a, const auto& b) { return a.at("sessionId").as_string() < b.at("sessionId").as_string(); });
        bj::array reference;
        for (const auto& row : expected.at(provider).as_array()) reference.push_back(row);
        EXPECT_EQ(ours, reference) << provider;
    }
    // Rows by last activity; the totals are those of the daily report.
    for (std::size_t i = 1; i < report.rows.size(); ++i) EXPECT_LE(report.rows[i - 1].lastActivity, report.rows[i].lastActivity);
    EXPECT_EQ(report.totals, usageByPeriod(tree->usage(), zone("UTC"), UsagePeriod::daily, {}).totals);
}

TEST_F(SampleReports, BlocksEqualTheReferenceAndTheLastIsActiveWhileItLasts) {
    const auto entries = tree->usage().countedEntries("claude");
    const auto ours = bj::parse(UsageReportJson::blocks(usageBlocks(entries, at("2026-11-21T00:00:00Z")), false));
    const auto expected = testing::expectedDocument("expected-blocks.json").at("blocks").as_array();
    const auto& blocks = ours.at("blocks").as_array();
    ASSERT_EQ(blocks.size(), expected.size());
    for (std::size_t i = 0; i < blocks.size(); ++i) {
        const auto row = withoutKeys(blocks[i].as_object(),
                                     {"id", "isActive", "entries", "costUSD", "unpricedTokens", "costSource"});
        EXPECT_EQ(bj::value(row), expected[i]) << i;
        EXPECT_EQ(blocks[i].at("id"), blocks[i].at("startTime"));
    }
    // The last block (14:00-19:00, last entry 14:50:13) as seen at 15:00 and after its end.
    const auto during = usageBlocks(entries, at("2026-11-05T15:00:00Z")).back();
    EXPECT_TRUE(during.isActive);
    EXPECT_EQ(during.projection->remainingMinutes, 240);
    EXPECT_EQ(during.totals.unpricedTokens, 220235);  // a model the catalogue does not know
    EXPECT_FALSE(usageBlocks(entries, at("2026-11-05T19:00:00Z")).back().isActive);
    EXPECT_EQ(activeUsageBlock(tree->usage(), "claude", at("2026-11-05T15:00:00Z")), during);
    // A clock pinned before the day's last entries sees the block of its own moment, not a later one.
    const Date morning = at("2026-11-05T11:25:00Z");
    std::vector<QuotaUsageEntry> before;
    for (const auto& e : entries) {
        if (e.timestamp <= morning) before.push_back(e);
    }
    const auto seenThen = usageBlocks(before, morning);
    const auto activeThen = activeUsageBlock(tree->usage(), "claude", morning);
    ASSERT_TRUE(activeThen.has_value() || seenThen.empty() || !seenThen.back().isActive);
    if (activeThen) {
        EXPECT_EQ(*activeThen, seenThen.back());
    }
}

const ProviderQuota* providerOf(const QuotaSnapshot& snapshot, const std::string& id) {
    for (const auto& p : snapshot.providers) {
        if (p.id == id) return &p;
    }
    return nullptr;
}

TEST_F(SampleReports, TheLocalSnapshotShowsTheNewestCodexLimitsAndTheUsageOfEachProvider) {
    const auto limits = testing::expectedDocument("expected-sessions.json").at("codexRateLimits");
    const auto snapshot = LocalQuotaSnapshot::make(tree->configuration, at("2026-11-06T21:00:00Z"), zone("UTC"));
    ASSERT_TRUE(snapshot.source);
    EXPECT_EQ(snapshot.source->sourceID, "test-machine");
    const auto* codex = providerOf(snapshot, "codex");
    ASSERT_TRUE(codex);
    EXPECT_EQ(codex->updatedAt, at(std::string(limits.at("observedAt").as_string())));
    ASSERT_EQ(codex->windows.size(), 2u);
    for (const auto& window : codex->windows) {
        const auto& reference = limits.at(window.id);
        EXPECT_DOUBLE_EQ(window.usedPercent, reference.at("usedPercent").to_number<double>()) << window.id;
        EXPECT_EQ(window.windowMinutes, reference.at("windowMinutes").as_int64());
        EXPECT_EQ(window.resetsAt, at(std::string(reference.at("resetsAt").as_string())));
    }
    EXPECT_EQ(codex->tokenUsage->last30DaysTokens, 432815);
    const auto* claude = providerOf(snapshot, "claude");
    ASSERT_TRUE(claude && providerOf(snapshot, "gemini"));
    EXPECT_TRUE(claude->windows.empty());  // no block limit set
    EXPECT_EQ(claude->tokenUsage->last30DaysTokens, 2667716);
    EXPECT_EQ(claude->tokenUsage->sessionTokens, 0);  // no active block a day after the last entry
    EXPECT_EQ(claude->dailyTokenUsage->front().dayKey, "2026-10-18");

    // The snapshot keeps the reading as reported, also once its reset has passed: a face shows
    // such a window as reset, and needs the reset time to say when.
    const auto later = LocalQuotaSnapshot::make(tree->configuration, at("2026-11-08T00:00:00Z"), zone("UTC"));
    EXPECT_EQ(providerOf(later, "codex")->windows, codex->windows);
    EXPECT_EQ(providerOf(later, "gemini")->updatedAt, at("2026-11-08T00:00:00Z"));
    // Thirty days after the first entries, the oldest days have left the totals.
    EXPECT_EQ(providerOf(LocalQuotaSnapshot::make(tree->configuration, at("2026-11-18T12:00:00Z"), zone("UTC")), "claude")
                  ->dailyTokenUsage->front().dayKey,
              "2026-10-20");
}

TEST_F(SampleReports, ABlockLimitMakesTheActiveClaudeBlockAWindow) {
    auto configuration = tree->configuration;
    configuration.userDefaults = std::make_shared<InMemoryUserDefaults>();
    ClaudeBlockLimit::setSetting(*configuration.userDefaults, {440470, false});
    EXPECT_EQ(ClaudeBlockLimit::setting(*configuration.userDefaults), (ClaudeBlockLimitSetting{440470, false}));
    const auto snapshot = LocalQuotaSnapshot::make(configuration, at("2026-11-05T15:00:00Z"), zone("UTC"));
    const auto* claude = providerOf(snapshot, "claude");
    ASSERT_EQ(claude->windows.size(), 1u);
    EXPECT_DOUBLE_EQ(claude->windows[0].usedPercent, 50);  // 220,235 of 440,470
    EXPECT_EQ(claude->windows[0].windowMinutes, 300);
    EXPECT_EQ(claude->windows[0].resetsAt, at("2026-11-05T19:00:00Z"));
    EXPECT_TRUE(QuotaReadingOrigin::isEstimated(claude->windows[0]));
    EXPECT_EQ(claude->tokenUsage->sessionTokens, 220235);
    EXPECT_FALSE(claude->tokenUsage->sessionCostUSD);  // the block's model has no price: unknown, not $0
    // Between blocks the window is there, unused.
    const auto idle = LocalQuotaSnapshot::make(configuration, at("2026-11-20T00:00:00Z"), zone("UTC"));
    EXPECT_EQ(providerOf(idle, "claude")->windows.at(0).usedPercent, 0);
    // "auto": the sample has too few heavy blocks for an estimate, so Claude shows no window.
    ClaudeBlockLimit::setSetting(*configuration.userDefaults, {std::nullopt, true});
    EXPECT_TRUE(ClaudeBlockLimit::setting(*configuration.userDefaults).automatic);
    EXPECT_TRUE(providerOf(LocalQuotaSnapshot::make(configuration, at("2026-11-05T15:00:00Z"), zone("UTC")), "claude")
                    ->windows.empty());
    ClaudeBlockLimit::setSetting(*configuration.userDefaults, {});
    EXPECT_EQ(ClaudeBlockLimit::setting(*configuration.userDefaults), ClaudeBlockLimitSetting{});
}

TEST_F(SampleReports, PublishingStoresTheSnapshotInHistoryLedgerAndSources) {
    auto configuration = tree->configuration;
    EXPECT_FALSE(LocalQuotaSnapshot::latest(configuration));
    const auto snapshot = LocalQuotaSnapshot::make(configuration, at("2026-11-06T21:00:00Z"), zone("UTC"));
    LocalQuotaSnapshot::publish(snapshot, configuration);
    // The stores keep costs to their own precision: the same snapshot up to the last digit.
    const auto sameSnapshot = [&](const std::optional<QuotaSnapshot>& stored) {
        ASSERT_TRUE(stored);
        EXPECT_EQ(stored->generatedAt, snapshot.generatedAt);
        EXPECT_EQ(stored->source, snapshot.source);
        ASSERT_EQ(stored->providers.size(), snapshot.providers.size());
        for (std::size_t i = 0; i < snapshot.providers.size(); ++i) {
            EXPECT_EQ(stored->providers[i].windows, snapshot.providers[i].windows);
            EXPECT_EQ(stored->providers[i].tokenUsage->last30DaysTokens, snapshot.providers[i].tokenUsage->last30DaysTokens);
            EXPECT_NEAR(*stored->providers[i].tokenUsage->last30DaysCostUSD,
                        *snapshot.providers[i].tokenUsage->last30DaysCostUSD, 1e-9);
        }
    };
    sameSnapshot(LocalQuotaSnapshot::latest(configuration));
    sameSnapshot(QuotaHistoryStore{configuration}.latestSnapshot());
    const auto days = QuotaSessionTokenLedger{configuration}.dailySummary("test-machine", "codex", 60);
    EXPECT_FALSE(days.empty());

    // The same figures a minute later change nothing; five minutes later only refresh the record.
    const auto again = LocalQuotaSnapshot::make(configuration, at("2026-11-06T21:01:00Z"), zone("UTC"));
    EXPECT_EQ(LocalQuotaSnapshot::publish(again, configuration), (LocalQuotaSnapshot::PublishResult{false, false}));
    const auto refreshed = LocalQuotaSnapshot::make(configuration, at("2026-11-06T21:05:00Z"), zone("UTC"));
    EXPECT_EQ(LocalQuotaSnapshot::publish(refreshed, configuration), (LocalQuotaSnapshot::PublishResult{false, true}));
    EXPECT_EQ(QuotaHistoryStore{configuration}.loadTimeline().snapshots.size(), 1u);
    EXPECT_EQ(LocalQuotaSnapshot::latest(configuration)->generatedAt, at("2026-11-06T21:05:00Z"));
    configuration.sourceID = "another-machine";
    EXPECT_FALSE(LocalQuotaSnapshot::latest(configuration));
}

}  // namespace
}  // namespace gaugepoint
