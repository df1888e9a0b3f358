#include <gtest/gtest.h>

#include "CommandRunner.hpp"
#include <boost/json/serialize.hpp>

#include "gaugepoint/platform/Json.hpp"

namespace gaugepoint {
namespace {

using testing::gaugepoint;

class PricingCommands : public ::testing::Test {
protected:
    testing::CommandResult run(std::vector<std::string> arguments, const std::string& input = {}) {
        arguments.insert(arguments.end(), {"--app-group-dir", directory.path().string()});
        return gaugepoint(arguments, input);
    }
    testing::ScratchDirectory directory;
};

TEST_F(PricingCommands, ResolvePrintsTheRecordOrOneLine) {
    const auto found = run({"catalog", "resolve", "us.anthropic.claude-sonnet-4-5-20250929-v1:0", "--json"});
    ASSERT_EQ(found.exitCode, 0) << found.err;
    const auto record = json::parse(found.out).as_object();
    EXPECT_EQ(record.at("id"), "claude-sonnet-4-5");
    EXPECT_EQ(record.at("cacheWriteCostPerMillionUSD"), 3.75);
    const auto gpt = json::parse(run({"catalog", "resolve", "gpt-5-codex", "--json"}).out).as_object();
    EXPECT_FALSE(gpt.contains("cacheWriteCostPerMillionUSD"));  // unknown, so left out

    const struct { std::vector<std::string> arguments; const char* err; } failures[] = {
        {{"catalog", "resolve", "claude-nebula-preview"}, "gaugepoint: no model matches \"claude-nebula-preview\"\n"},
        {{"catalog", "resolve", " ", "--display-name", "Mystery"}, "gaugepoint: no model matches \" \" or \"Mystery\"\n"},
        {{"catalog", "provider", "nobody"}, "gaugepoint: no provider matches \"nobody\"\n"},
    };
    for (const auto& f : failures) {
        const auto result = run(f.arguments);
        EXPECT_EQ(result.exitCode, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, f.err);
    }
    const auto provider = run({"catalog", "provider", "OpenAI"});
    EXPECT_EQ(provider.out.rfind("id           codex\nname         Codex\n", 0), 0u) << provider.out;
}

TEST_F(PricingCommands, RefreshFromFilesReportsChangesAndStatus) {
    const auto providers = run({"catalog", "providers", "--json"}).out;
    auto models = json::parse(run({"catalog", "models", "--json"}).out);
    models.as_object()["models"].as_array().resize(2);
    testing::writeFile(directory / "p.json", providers);
    testing::writeFile(directory / "m.json", boost::json::serialize(models));
    const auto refreshed = run({"catalog", "refresh", "--provider-url", "file://" + (directory / "p.json").string(),
                                "--model-url", "file://" + (directory / "m.json").string(), "--now", "2026-11-22T08:00:00Z"});
    ASSERT_EQ(refreshed.exitCode, 0) << refreshed.err;
    EXPECT_NE(refreshed.out.find("providers (0 added, 0 removed, 0 changed)"), std::string::npos) << refreshed.out;
    EXPECT_NE(refreshed.out.find("2 models (0 added, "), std::string::npos) << refreshed.out;
    EXPECT_EQ(json::parse(run({"catalog", "models", "--json"}).out).at("models").as_array().size(), 2u);

    // One impossible price refuses the whole catalogue; the one in force stays.
    for (const double price : {-3.0, 1e300}) {
        auto impossible = models;
        impossible.as_object()["models"].as_array()[0].as_object()["outputCostPerMillionUSD"] = price;
        impossible.as_object()["models"].as_array().resize(1);
        testing::writeFile(directory / "m.json", boost::json::serialize(impossible));
        const auto refused = run({"catalog", "refresh", "--provider-url", "file://" + (directory / "p.json").string(),
                                  "--model-url", "file://" + (directory / "m.json").string()});
        EXPECT_EQ(refused.err, "gaugepoint: Model metadata catalog is invalid.\n");
        EXPECT_EQ(json::parse(run({"catalog", "models", "--json"}).out).at("models").as_array().size(), 2u);
    }

    const auto failed = run({"catalog", "refresh", "--provider-url", "file:///proc/gaugepoint-nonexistent", "--model-url", "x"});
    EXPECT_EQ(failed.exitCode, 1);
    EXPECT_EQ(failed.err, "gaugepoint: Failed to fetch metadata from file:///proc/gaugepoint-nonexistent.\n");
    const auto status = run({"catalog", "status"});
    EXPECT_NE(status.out.find("updated              2026-11-22 08:00:00"), std::string::npos) << status.out;
    EXPECT_NE(status.out.find("last error           Failed to fetch metadata from file:///proc/gaugepoint-nonexistent."), std::string::npos);
}

TEST_F(PricingCommands, CostsAsTextAndJSON) {
    EXPECT_EQ(run({"cost", "usage", "--model", "claude-opus-4-1", "--input", "1000000", "--output", "1000000", "--json"}).out,
              "{\n  \"model\": \"claude-opus-4-1\",\n  \"estimatedCostUSD\": 90,\n  \"baselineCostWithoutCacheUSD\": 90\n}\n");
    // No price is no number, never $0 and never an empty document.
    EXPECT_EQ(run({"cost", "usage", "--model", "mystery", "--input", "5", "--json"}).out,
              "{\n  \"model\": \"mystery\",\n  \"estimatedCostUSD\": null,\n  \"baselineCostWithoutCacheUSD\": null\n}\n");
    EXPECT_EQ(run({"cost", "usage", "--model", "gemini-2.5-flash", "--output", "1000"}).out,
              "model            gemini-2.5-flash\ncost             $0.0025\nwithout caching  $0.0025\n");
    // The names people type, with the same rule as catalog resolve.
    EXPECT_EQ(run({"cost", "usage", "--model", "sonnet", "--input", "1000000"}).out.rfind("model            claude-sonnet-4-6\n"
                                                                                          "cost             $3.00\n", 0),
              0u);
    for (const char* typed : {"sonnet", "opus", "haiku", "gemini-pro"}) {
        EXPECT_EQ(run({"catalog", "resolve", typed}).exitCode, 0) << typed;
    }
    EXPECT_EQ(run({"catalog", "resolve", "gemini-pro", "--json"}).out.find("\"id\": \"gemini-2.5-pro\""), 4u);
    EXPECT_EQ(run({"cost", "usage", "--model", "x", "--input", "-5"}).exitCode, 2);

    const std::string descriptor =
        R"({"id":"s","sourceID":"m","sourceName":"M","provider":{"id":"claude","displayName":"Claude"},"title":"",)"
        R"("messageCount":2,"promptCount":1,"tokenUsage":{"inputTokens":1000000,"outputTokens":1000000},)"
        R"("topModels":[{"id":"claude-sonnet-4-5","displayName":"","sessionCount":1,"messageCount":2,)"
        R"("tokenUsage":{"inputTokens":1000000,"outputTokens":1000000,"cacheReadTokens":1000000}}]})";
    EXPECT_EQ(run({"cost", "session", "-", "--json"}, descriptor).out,
              "{\n  \"resolvedCostUSD\": 18.3,\n  \"baselineCostWithoutCacheUSD\": 21,\n  \"estimatedSavingsUSD\": 2.6999999999999993,\n"
              "  \"costSource\": \"estimated\",\n  \"familyFallbackCostUSD\": 18.3\n}\n");
    const std::string aggregate =
        R"({"id":"a","sourceID":"m","sourceName":"M","provider":{"id":"codex","displayName":"Codex"},"bucketStart":"2026-11-16T00:00:00Z",)"
        R"("granularity":"week","sessionCount":1,"promptCount":1,"messageCount":1,"tokenUsage":{"exactCostUSD":4.5}})";
    EXPECT_EQ(run({"cost", "session", "-"}, aggregate).out,
              "cost              $4.50\nwithout caching   $4.50\nsaved by caching  $0.00\ncost source       exact\n");
    const auto bad = run({"cost", "session", "-"}, R"({"id":"a","bucketStart":"2026-11-16T00:00:00Z"})");
    EXPECT_EQ(bad.err, "gaugepoint: cannot decode standard input: sourceID: required key is missing\n");

    EXPECT_EQ(run({"cost", "warp-credit", "--tier", " Business ", "--json"}).out, "{\"usdPerCredit\":0.03}\n");
    EXPECT_EQ(run({"cost", "warp-credit", "--tier", "pro"}).out, "$0.012 per credit\n");
}

}  // namespace
}  // namespace gaugepoint
