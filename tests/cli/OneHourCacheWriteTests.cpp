#include <gtest/gtest.h>

#include <boost/json/serialize.hpp>
#include <sqlite3.h>

#include <cstdlib>

#include "CommandRunner.hpp"
#include "gaugepoint/platform/Json.hpp"

namespace gaugepoint {
namespace {

using testing::gaugepoint;

// One Claude response: 1,000 input, 2,000 output and 1,000,000 cache-write tokens, 400,000 of
// them kept for an hour. At the shipped prices of claude-sonnet-4-5 ($3 input, $15 output, $3.75
// cache write, so $6 for the one-hour writes: twice the input price):
//   0.001 x 3 + 0.002 x 15 + 0.6 x 3.75 + 0.4 x 6 = 0.003 + 0.03 + 2.25 + 2.4 = $4.683
// where every cache write at $3.75 would be $3.783.
constexpr const char* kResponse =
    R"({"type":"assistant","sessionId":"s1","uuid":"u1","requestId":"req_1","cwd":"/p",)"
    R"("timestamp":"2026-11-20T10:00:00.000Z","message":{"id":"msg_1","role":"assistant",)"
    R"("model":"claude-sonnet-4-5-20250929","content":[{"type":"text","text":"x"}],)"
    R"("usage":{"input_tokens":1000,"output_tokens":2000,"cache_read_input_tokens":0,)"
    R"("cache_creation_input_tokens":1000000,)"
    R"("cache_creation":{"ephemeral_5m_input_tokens":600000,"ephemeral_1h_input_tokens":400000}}}})"
    "\n";

class OneHourCacheWrites : public ::testing::Test {
protected:
    OneHourCacheWrites() {
        ::setenv("XDG_CONFIG_HOME", (dir / "config").c_str(), 1);
        ::setenv("XDG_DATA_HOME", (dir / "data").c_str(), 1);
        std::filesystem::create_directories(dir / "claude" / "projects" / "p");
        testing::writeFile(dir / "claude" / "projects" / "p" / "s1.jsonl", kResponse);
    }
    testing::CommandResult run(std::vector<std::string> args) const {
        args.insert(args.end(), {"--app-group-dir", (dir / "group").string(), "--json"});
        return gaugepoint(args);
    }
    boost::json::value dailyTotals(bool scan) const {
        std::vector<std::string> args{"report", "daily", "--timezone", "UTC", "--claude-dir", (dir / "claude").string()};
        if (!scan) args.push_back("--no-scan");
        const auto result = run(args);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        return json::parse(result.out).at("totals");
    }
    void inRegistry(const char* sql) const {
        sqlite3* db = nullptr;
        ASSERT_EQ(sqlite3_open((dir / "group" / "quota-session-file-registry.sqlite").c_str(), &db), SQLITE_OK);
        char* error = nullptr;
        EXPECT_EQ(sqlite3_exec(db, sql, nullptr, nullptr, &error), SQLITE_OK) << (error ? error : "");
        sqlite3_free(error);
        sqlite3_close(db);
    }
    testing::ScratchDirectory dir;
};

TEST_F(OneHourCacheWrites, ArePricedAtTheirOwnRateAndShownBesideTheCacheWrites) {
    const auto daily = run({"report", "daily", "--timezone", "UTC", "--claude-dir", (dir / "claude").string()});
    ASSERT_EQ(daily.exitCode, 0) << daily.err;
    const auto doc = json::parse(daily.out);
    const auto& row = doc.at("daily").as_array().at(0);
    EXPECT_EQ(row.at("cacheCreationTokens").as_int64(), 1000000);
    EXPECT_EQ(row.at("cacheCreation1hTokens").as_int64(), 400000);
    EXPECT_EQ(row.at("totalTokens").as_int64(), 1003000);  // the one-hour part is not added again
    EXPECT_NEAR(row.at("totalCost").as_double(), 4.683, 1e-9);
    EXPECT_EQ(row.at("modelBreakdowns").at(0).at("cacheCreation1hTokens").as_int64(), 400000);
    EXPECT_NEAR(doc.at("totals").at("totalCost").as_double(), 4.683, 1e-9);

    const auto text = gaugepoint({"report", "daily", "--no-scan", "--breakdown", "--timezone", "UTC", "--app-group-dir",
                                  (dir / "group").string()});
    EXPECT_NE(text.out.find("1,000,000 (1h 400,000)"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("$4.68"), std::string::npos) << text.out;

    const std::vector<std::string> usage{"cost",          "usage",   "--model",         "claude-sonnet-4-5", "--input",
                                         "1000",          "--output", "2000",           "--cache-write",     "1000000",
                                         "--cache-write-1h", "400000"};
    const auto priced = run(usage);
    ASSERT_EQ(priced.exitCode, 0) << priced.err;
    EXPECT_NEAR(json::parse(priced.out).at("estimatedCostUSD").as_double(), 4.683, 1e-9);
    auto tooMany = usage;
    tooMany.back() = "1000001";
    const auto refused = run(tooMany);
    EXPECT_EQ(refused.exitCode, 2);
    EXPECT_NE(refused.err.find("--cache-write-1h: the one-hour part of --cache-write, at most 1000000"), std::string::npos)
        << refused.err;
}

TEST_F(OneHourCacheWrites, UseTheCataloguesOwnPriceWhenItStatesOne) {
    auto models = json::parse(run({"catalog", "models"}).out);
    for (auto& model : models.at("models").as_array()) {
        if (model.at("id") == "claude-sonnet-4-5") model.as_object()["cacheWrite1hCostPerMillionUSD"] = 5.0;
    }
    std::filesystem::create_directories(dir / "group");
    testing::writeFile(dir / "group" / "model_metadata_catalog.cached.json", boost::json::serialize(models));
    // 0.033 + 0.6 x 3.75 + 0.4 x 5 = $4.283
    EXPECT_NEAR(dailyTotals(true).at("totalCost").as_double(), 4.283, 1e-9);
    const auto resolved = gaugepoint({"catalog", "resolve", "claude-sonnet-4-5", "--app-group-dir", (dir / "group").string()});
    EXPECT_NE(resolved.out.find("cache write 1h  $5 per million tokens\n"), std::string::npos) << resolved.out;
}

TEST_F(OneHourCacheWrites, AnOlderStoreMigratesAndKeepsItsTotals) {
    const auto before = dailyTotals(true);
    // Sums made before the one-hour column existed are made again from the entries.
    inRegistry("ALTER TABLE usage_quarters DROP COLUMN cache_write_1h_tokens");
    EXPECT_EQ(dailyTotals(false), before);

    // A store of entries without the column: the same tokens, every cache write at the old price,
    // until the next scan reads the transcripts again and finds the one-hour part.
    std::string downgrade = "UPDATE session_file_registry SET parser_version = 1;";
    for (const char* table : {"usage_quarters", "usage_entries"}) {
        for (const char* column : {"cache_write_1h_tokens", "charge_premium_requests", "charge_aiu", "charge_credits"}) {
            downgrade += std::string("ALTER TABLE ") + table + " DROP COLUMN " + column + ";";
        }
    }
    inRegistry(downgrade.c_str());
    const auto older = dailyTotals(false);
    EXPECT_EQ(older.at("totalTokens"), before.at("totalTokens"));
    EXPECT_EQ(older.at("cacheCreation1hTokens").as_int64(), 0);
    EXPECT_NEAR(older.at("totalCost").as_double(), 3.783, 1e-9);
    EXPECT_EQ(dailyTotals(true), before);
}

}  // namespace
}  // namespace gaugepoint
