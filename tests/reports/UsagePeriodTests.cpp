#include <gtest/gtest.h>

#include "ReportTestSupport.hpp"
#include "gaugepoint/reports/UsagePeriods.hpp"

namespace gaugepoint {
namespace {

using testing::usageEntry;

// Input tokens per period: each entry has a distinct power of ten, so every sum says which
// entries a period counted.
std::map<std::string, std::int64_t> inputs(const UsagePeriodReport& report) {
    std::map<std::string, std::int64_t> periods;
    for (const auto& row : report.rows) periods[row.period] = row.totals.tokens.inputTokens;
    return periods;
}

LocalCalendar zone(const char* id) { return *LocalCalendar::inTimeZone(id, LocalCalendar::Kind::gregorian); }

// Around the end of daylight saving time in New York (Sunday 2026-11-01, a 25-hour day) and a
// month's end; New York times in the comments.
class PeriodFixture : public ::testing::Test {
protected:
    PeriodFixture() {
        fixture.add({usageEntry("claude", "2026-10-31T03:30:00Z", 1),        // Fri 10-30 23:30 EDT
                     usageEntry("claude", "2026-11-01T03:59:59Z", 10),       // Sat 10-31 23:59:59 EDT
                     usageEntry("claude", "2026-11-01T04:00:00Z", 100),      // Sun 11-01 00:00 EDT
                     usageEntry("claude", "2026-11-02T04:59:00Z", 1000),     // Sun 11-01 23:59 EST
                     usageEntry("claude", "2026-11-02T05:00:00Z", 10000)});  // Mon 11-02 00:00 EST
        fixture.add({usageEntry("codex", "2026-12-01T04:59:59Z", 100000, "gpt-5"),  // Mon 11-30 23:59:59
                     usageEntry("codex", "2026-12-01T05:00:00Z", 1000000, "gpt-5")},  // Tue 12-01 00:00
                    "codex.jsonl");
    }
    UsagePeriodReport report(UsagePeriod period, const char* zoneID, UsageReportFilter filter = {}, bool monday = false) {
        return usageByPeriod(fixture.store(), zone(zoneID), period, filter, monday);
    }
    testing::UsageFixture fixture;
};

TEST_F(PeriodFixture, DaysWeeksAndMonthsFollowTheZone) {
    using Rows = std::map<std::string, std::int64_t>;
    EXPECT_EQ(inputs(report(UsagePeriod::daily, "America/New_York")),
              (Rows{{"2026-10-30", 1}, {"2026-10-31", 10}, {"2026-11-01", 1100}, {"2026-11-02", 10000},
                    {"2026-11-30", 100000}, {"2026-12-01", 1000000}}));
    EXPECT_EQ(inputs(report(UsagePeriod::daily, "UTC")),
              (Rows{{"2026-10-31", 1}, {"2026-11-01", 110}, {"2026-11-02", 11000}, {"2026-12-01", 1100000}}));
    // Weeks are named by their first day: Sunday, or Monday when asked.
    EXPECT_EQ(inputs(report(UsagePeriod::weekly, "America/New_York")),
              (Rows{{"2026-10-25", 11}, {"2026-11-01", 11100}, {"2026-11-29", 1100000}}));
    EXPECT_EQ(inputs(report(UsagePeriod::weekly, "America/New_York", {}, true)),
              (Rows{{"2026-10-26", 1111}, {"2026-11-02", 10000}, {"2026-11-30", 1100000}}));
    EXPECT_EQ(inputs(report(UsagePeriod::monthly, "America/New_York")),
              (Rows{{"2026-10", 11}, {"2026-11", 111100}, {"2026-12", 1000000}}));
    const auto all = report(UsagePeriod::monthly, "America/New_York");
    EXPECT_EQ(all.totals.tokens.inputTokens, 1111111);
    EXPECT_EQ(all.totals.entries, 7);
    EXPECT_EQ(all.totals.modelsUsed, (std::vector<std::string>{"claude-sonnet-4-5-20250929", "gpt-5"}));
}

TEST_F(PeriodFixture, FiltersTakeWholeDaysOfTheZoneAndRowsCanComeNewestFirst) {
    UsageReportFilter filter;
    filter.since = "2026-11-01";
    filter.until = "2026-11-01";
    EXPECT_EQ(inputs(report(UsagePeriod::daily, "America/New_York", filter)),
              (std::map<std::string, std::int64_t>{{"2026-11-01", 1100}}));
    filter = {};
    filter.providerID = "claude";
    filter.descending = true;
    const auto rows = report(UsagePeriod::daily, "America/New_York", filter).rows;
    ASSERT_EQ(rows.size(), 4u);
    EXPECT_EQ(rows.front().period, "2026-11-02");
    EXPECT_EQ(rows.back().period, "2026-10-30");

    for (const auto& [since, until] : {std::pair{"2026-02-30", "2026-03-01"}, std::pair{"2026-11-02", "2026-11-01"},
                                       std::pair{"yesterday", "2026-11-01"}}) {
        filter.since = since;
        filter.until = until;
        EXPECT_THROW(report(UsagePeriod::daily, "UTC", filter), UsageReportError) << since;
    }
}

TEST(UsagePeriods, AZoneAtAQuarterHourOffsetSplitsItsDaysExactly) {
    testing::UsageFixture fixture;
    fixture.add({usageEntry("gemini", "2026-11-10T18:14:59.999Z", 1, "gemini-2.5-pro"),  // 23:59:59.999 at +05:45
                 usageEntry("gemini", "2026-11-10T18:15:00Z", 2, "gemini-2.5-pro")});
    EXPECT_EQ(inputs(usageByPeriod(fixture.store(), zone("Asia/Kathmandu"), UsagePeriod::daily, {})),
              (std::map<std::string, std::int64_t>{{"2026-11-10", 1}, {"2026-11-11", 2}}));
}

TEST(UsagePeriods, ReportedCostsWinPricesFillInAndUnpricedTokensAreCountedApart) {
    testing::UsageFixture fixture;
    fixture.add({usageEntry("claude", "2026-11-10T10:00:00Z", 1'000'000),                     // $3 at catalogue prices
                 usageEntry("claude", "2026-11-10T10:05:00Z", 0, "claude-sonnet-4-5-20250929", 100'000, 0.5),  // reported
                 usageEntry("claude", "2026-11-10T10:10:00Z", 5000, "mystery-model")});        // no price anywhere
    const auto report = usageByPeriod(fixture.store(), zone("UTC"), UsagePeriod::daily, {});
    ASSERT_EQ(report.rows.size(), 1u);
    const auto& day = report.rows[0].totals;
    EXPECT_DOUBLE_EQ(day.totalCost, 3.5);
    EXPECT_EQ(day.unpricedTokens, 5000);
    EXPECT_EQ(day.costSource, QuotaUsageCostSource::mixed);
    ASSERT_EQ(day.modelBreakdowns.size(), 2u);
    EXPECT_EQ(day.modelBreakdowns[0].modelName, "claude-sonnet-4-5-20250929");
    EXPECT_DOUBLE_EQ(day.modelBreakdowns[0].cost, 3.5);
    EXPECT_EQ(day.modelBreakdowns[0].tokens.totalTokens(), 1'100'000);
    EXPECT_EQ(day.modelBreakdowns[1].cost, 0);
    EXPECT_EQ(report.totals, day);

    testing::UsageFixture unpriced;
    unpriced.add({usageEntry("claude", "2026-11-10T10:10:00Z", 5000, "mystery-model")});
    const auto only = usageByPeriod(unpriced.store(), zone("UTC"), UsagePeriod::daily, {}).totals;
    EXPECT_EQ(only.costSource, QuotaUsageCostSource::unavailable);
    EXPECT_EQ(only.unpricedTokens, 5000);
}

TEST(UsagePeriods, StoredQuarterSumsAgreeWithTheEntriesBeforeAndAfterTheyAreRefreshed) {
    testing::UsageFixture fixture;
    fixture.add({usageEntry("claude", "2026-11-10T10:00:00Z", 1), usageEntry("claude", "2026-11-10T10:20:00Z", 2)}, "a");
    const auto store = fixture.store();
    const auto sums = [&] {
        std::map<std::int64_t, std::int64_t> byQuarter;
        for (const auto& bucket : store.usageBuckets()) byQuarter[bucket.quarterHour] += bucket.tokens.inputTokens;
        return byQuarter;
    };
    const auto fromEntries = [&] {
        std::map<std::int64_t, std::int64_t> byQuarter;
        for (const auto& e : store.countedEntries()) {
            byQuarter[std::int64_t(std::floor(secondsSince1970(e.timestamp) / 900))] += e.tokens.inputTokens;
        }
        return byQuarter;
    };
    EXPECT_EQ(sums(), fromEntries());  // nothing summed yet: all from the entries
    store.refreshUsageQuarters();
    EXPECT_EQ(sums(), fromEntries());
    // The file is read again with other content: its old rows go, a quarter loses its entry.
    const QuotaSessionFileRegistry registry{fixture.configuration};
    registry.inTransaction("forget", [&](sqlite::Connection& connection) {
        sqlite::StatementCache c{connection};
        QuotaSessionFileRegistryEntry entry;
        entry.path = "a";
        entry.sourceID = "test";
        entry.providerID = "claude";
        QuotaUsageEntryStore::forgetFile(c, QuotaUsageEntryStore::fileKey(c, entry));
        return true;
    });
    fixture.add({usageEntry("claude", "2026-11-10T10:20:00Z", 40), usageEntry("claude", "1969-12-31T23:50:00Z", 8)}, "a");
    EXPECT_EQ(sums(), fromEntries());
    store.refreshUsageQuarters();
    EXPECT_EQ(sums(), fromEntries());
    EXPECT_EQ(sums().size(), 2u);

    // After a first import every quarter is summed in one pass: the same groups and sums.
    fixture.add({usageEntry("codex", "2026-11-10T10:21:00Z", 7, "gpt-5-codex")}, "b");
    store.refreshUsageQuarters();
    const auto flat = [&] {
        std::vector<std::string> rows;
        for (const auto& b : store.usageBuckets()) {
            rows.push_back(std::to_string(b.quarterHour) + " " + b.providerID + " " + b.model + " " +
                           std::to_string(b.entries) + " " + std::to_string(b.tokens.totalTokens()) + " " +
                           std::to_string(b.tokens.exactCostUSD.value_or(-1)));
        }
        return rows;
    };
    const auto changedWay = flat();
    store.refreshUsageQuarters(QuotaUsageEntryStore::Quarters::every);
    EXPECT_EQ(flat(), changedWay);
    EXPECT_EQ(changedWay.size(), 3u);

    // While a first import runs its time index is missing: noted quarters are summed in a pass
    // over the entries, by readers and by a refresh alike.
    testing::RawDatabase raw{fixture.configuration.appGroupDirectory.value() /
                             std::string(QuotaSessionFileRegistry::defaultFilename)};
    ASSERT_EQ(raw.exec("DROP INDEX idx_ue_time; INSERT OR IGNORE INTO usage_dirty_quarters SELECT quarter FROM usage_quarters"), "");
    EXPECT_EQ(flat(), changedWay);
    store.refreshUsageQuarters();
    EXPECT_EQ(flat(), changedWay);
    EXPECT_EQ(store.countedEntries(std::nullopt, dateFromSeconds(0)).size(), 2u);  // not the one before 1970
}

TEST(UsagePeriods, QuarterSumsMadeWhilePublishingAreTheOnesTheStoreMakes) {
    testing::UsageFixture fixture;
    auto charged = usageEntry("copilot", "2026-11-10T10:03:00Z", 5, "gpt-5");
    charged.charges = {1.5, 0.25, 2};
    fixture.add({usageEntry("claude", "2026-11-10T10:00:00Z", 1), usageEntry("claude", "2026-11-10T10:14:59Z", 2),
                 usageEntry("claude", "2026-11-10T10:15:00Z", 4, "claude-opus-4-1", 3, 0.75),
                 usageEntry("claude", "2026-11-10T10:16:00Z", 8, "claude-opus-4-1", 0, 0.0),
                 usageEntry("claude", "1969-12-31T23:50:00Z", 16), charged},
                "a");
    const auto store = fixture.store();
    store.refreshUsageQuarters(QuotaUsageEntryStore::Quarters::every);
    testing::RawDatabase raw{fixture.configuration.appGroupDirectory.value() /
                             std::string(QuotaSessionFileRegistry::defaultFilename)};
    const auto stored = [&] {
        return raw.column(
            "SELECT quarter || ' ' || provider_id || ' ' || model || ' ' || reported || ' ' || entries || ' ' ||"
            " input_tokens || ' ' || output_tokens || ' ' || IFNULL(cost_usd, 'none') || ' ' || charge_premium_requests"
            " || ' ' || charge_aiu || ' ' || charge_credits FROM usage_quarters ORDER BY 1");
    };
    const auto bySql = stored();
    ASSERT_EQ(bySql.size(), 5u);
    const auto forget = [&] {
        ASSERT_EQ(raw.exec("INSERT OR IGNORE INTO usage_dirty_quarters SELECT quarter FROM usage_quarters; DELETE FROM usage_quarters"), "");
    };
    forget();
    UsageQuarterSums quarters;
    store.everySessionContent(&quarters);
    store.refreshUsageQuarters(QuotaUsageEntryStore::Quarters::every, &quarters);
    EXPECT_EQ(stored(), bySql);
    EXPECT_EQ(raw.column("SELECT COUNT(*) FROM usage_dirty_quarters"), std::vector<std::string>{"0"});

    // Sums that are not exact are left: the store sums in SQL.
    forget();
    UsageQuarterSums::Entry far;
    far.providerID = "claude";
    far.timestamp = 1e300;
    quarters.add(far);
    ASSERT_FALSE(quarters.exact());
    store.refreshUsageQuarters(QuotaUsageEntryStore::Quarters::every, &quarters);
    EXPECT_EQ(stored(), bySql);
}

}  // namespace
}  // namespace gaugepoint
