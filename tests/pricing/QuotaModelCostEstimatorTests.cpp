#include <gtest/gtest.h>

#include "PricingTestSupport.hpp"
#include "gaugepoint/pricing/QuotaModelCostEstimator.hpp"

namespace gaugepoint {
namespace {

using testing::CatalogFixture;
using testing::priced;
namespace Cost = QuotaModelCostEstimator;
using Source = QuotaUsageCostSource;

QuotaSessionTokenUsage usage(std::int64_t in, std::int64_t out, std::int64_t read = 0, std::int64_t write = 0,
                             std::optional<double> exact = std::nullopt) {
    return {in, out, read, write, exact};
}

QuotaSessionModelUsageSummary entry(std::string id, QuotaSessionTokenUsage tokens) {
    return {id, id, 1, 1, tokens};
}

QuotaSessionDescriptor session(std::vector<QuotaSessionModelUsageSummary> models, QuotaSessionTokenUsage total,
                               std::string provider = "Claude") {
    QuotaSessionDescriptor d;
    d.id = "s";
    d.provider = {"p", std::move(provider)};
    d.topModels = std::move(models);
    d.tokenUsage = total;
    return d;
}

// Prices: "full" has all four, "input-only" only an input price, "bare" none at all.
class CostRules : public ::testing::Test {
protected:
    CatalogFixture catalog{{priced("full", {}, 3, 15, 0.3, 3.75), priced("input-only", {}, 2, std::nullopt),
                            priced("output-only", {}, std::nullopt, 8), priced("bare", {}, std::nullopt, std::nullopt)}};
};

TEST_F(CostRules, CataloguePriceSumsTheKnownKindsOnly) {
    EXPECT_DOUBLE_EQ(*Cost::estimatedCostUSD(usage(1'000'000, 2'000'000, 1'000'000, 1'000'000), "full", std::nullopt),
                     3 + 30 + 0.3 + 3.75);
    EXPECT_DOUBLE_EQ(*Cost::estimatedCostUSD(usage(500'000, 1'000'000, 1'000'000, 1'000'000), "input-only", std::nullopt), 1);
    EXPECT_FALSE(Cost::estimatedCostUSD(usage(1, 1), "bare", std::nullopt));
    EXPECT_FALSE(Cost::estimatedCostUSD(usage(1, 1), "nowhere", std::nullopt));
    EXPECT_DOUBLE_EQ(*Cost::estimatedCostUSD(usage(1'000'000, 0), "somebody's id", "full"), 3);
}

TEST_F(CostRules, BaselinePricesCachedTokensAsFreshInput) {
    EXPECT_DOUBLE_EQ(*Cost::estimatedBaselineCostWithoutCacheUSD(usage(1'000'000, 1'000'000, 2'000'000, 1'000'000), "full",
                                                                 std::nullopt),
                     3 + 15 + 3 * 3);
    // Only an input price: output and cache tokens at the input rate.
    EXPECT_DOUBLE_EQ(*Cost::estimatedBaselineCostWithoutCacheUSD(usage(1'000'000, 1'000'000, 1'000'000, 1'000'000),
                                                                 "input-only", std::nullopt),
                     8);
    // Only an output price: input and cache tokens at the output rate.
    EXPECT_DOUBLE_EQ(*Cost::estimatedBaselineCostWithoutCacheUSD(usage(1'000'000, 0, 1'000'000, 0), "output-only",
                                                                 std::nullopt),
                     16);
    EXPECT_FALSE(Cost::estimatedBaselineCostWithoutCacheUSD(usage(1, 1), "bare", std::nullopt));
}

TEST_F(CostRules, ListCostPrefersReportedCostsAndFallsBackToTheTotal) {
    const auto total = usage(0, 0, 0, 0, 0.75);
    EXPECT_DOUBLE_EQ(Cost::resolvedCostUSD({entry("full", usage(1'000'000, 0))}, total), 0.75);  // total's exact wins
    EXPECT_DOUBLE_EQ(Cost::resolvedCostUSD({}, usage(0, 0, 0, 0, -1)), -1);  // empty list: the total's figure
    const std::vector models{entry("full", usage(1'000'000, 0)), entry("bare", usage(5, 5, 0, 0, 0.5)),
                             entry("bare", usage(9, 9)), entry("nowhere", usage(9, 9, 0, 0, 0))};
    EXPECT_DOUBLE_EQ(Cost::resolvedCostUSD(models, usage(0, 0)), 3.5);
    EXPECT_DOUBLE_EQ(Cost::resolvedCostUSD({entry("bare", usage(9, 9))}, usage(0, 0, 0, 0, -2)), -2);  // nothing added
    EXPECT_DOUBLE_EQ(Cost::estimatedBaselineCostWithoutCacheUSD(models, usage(0, 0)), 3 + 0.5);
    EXPECT_DOUBLE_EQ(Cost::estimatedBaselineCostWithoutCacheUSD({}, usage(0, 0, 0, 0, 4)), 4);
    EXPECT_DOUBLE_EQ(Cost::estimatedBaselineCostWithoutCacheUSD({entry("bare", usage(1, 1))}, usage(0, 0, 0, 0, 4)), 4);
}

TEST_F(CostRules, MetricsClassifyEveryEntry) {
    const auto exact = entry("bare", usage(10, 10, 0, 0, 0.25));
    const auto estimated = entry("full", usage(1'000'000, 0, 1'000'000, 0));
    const auto unpriced = entry("nowhere", usage(10, 0));
    const auto ignored = entry("nowhere", usage(0, 0));
    const struct {
        std::vector<QuotaSessionModelUsageSummary> models;
        QuotaSessionTokenUsage total;
        Source source;
    } cases[] = {
        {{exact, estimated}, usage(0, 0), Source::mixed},      {{estimated, unpriced}, usage(0, 0), Source::mixed},
        {{exact, ignored}, usage(0, 0), Source::exact},        {{estimated, ignored}, usage(0, 0), Source::estimated},
        {{unpriced}, usage(0, 0), Source::unavailable},        {{ignored}, usage(0, 0), Source::unavailable},
        {{}, usage(5, 5), Source::unavailable},                {{unpriced}, usage(0, 0, 0, 0, 1), Source::exact},
        {{exact, estimated, unpriced}, usage(0, 0), Source::mixed},
    };
    for (const auto& c : cases) EXPECT_EQ(Cost::costMetrics(session(c.models, c.total)).costSource, c.source);

    // Cost 3 + 0.3 against a baseline of 3 + 3 saves 2.7.
    const auto saving = Cost::costMetrics(session({estimated}, usage(0, 0)));
    EXPECT_DOUBLE_EQ(saving.baselineCostWithoutCacheUSD, 6);
    EXPECT_DOUBLE_EQ(saving.estimatedSavingsUSD, 2.7);
    // A reported cost above the baseline saves nothing, never a negative amount.
    const auto none = Cost::costMetrics(session({estimated, entry("full", usage(1, 1, 0, 0, 50))}, usage(0, 0)));
    EXPECT_EQ(none.estimatedSavingsUSD, 0);
    EXPECT_EQ(none.costSource, Source::mixed);

    QuotaSessionAggregateSnapshot bucket;
    bucket.modelUsage = {estimated};
    EXPECT_EQ(Cost::costMetrics(bucket), saving);
    EXPECT_DOUBLE_EQ(Cost::resolvedCostUSD(bucket), 3.3);
    EXPECT_EQ(QuotaUsageCostMetrics::zero, (QuotaUsageCostMetrics{0, 0, Source::unavailable}));
    EXPECT_EQ(json::encode(saving), R"({"baselineCostWithoutCacheUSD":6,"estimatedSavingsUSD":2.7,"costSource":"estimated"})");
}

TEST_F(CostRules, FamilyFallbackTakesTheLargestCandidate) {
    // No catalogue entry: 1M input + 1M output of a "claude" model is 3 + 15 by family.
    EXPECT_DOUBLE_EQ(Cost::resolvedCostUSDWithFamilyFallback(session({entry("claude-x", usage(1'000'000, 1'000'000))},
                                                                     usage(1'000'000, 1'000'000))),
                     18);
    // A plausible reported 2.0 loses to 3.5 by family prices (1M input, 225k output); the
    // metrics still say exact.
    const auto reported = session({entry("gpt-unknown", usage(1'000'000, 225'000))}, usage(1'000'000, 225'000, 0, 0, 2.0), "Codex");
    EXPECT_DOUBLE_EQ(Cost::resolvedCostUSDWithFamilyFallback(reported), 3.5);
    EXPECT_EQ(Cost::costMetrics(reported).costSource, Source::exact);
    // A catalogue price above every family figure wins.
    EXPECT_DOUBLE_EQ(Cost::resolvedCostUSDWithFamilyFallback(session({entry("full", usage(0, 1'000'000))}, usage(0, 1'000'000), "x")), 15);
    // The provider's display name alone decides the family of the total.
    EXPECT_DOUBLE_EQ(Cost::resolvedCostUSDWithFamilyFallback(session({}, usage(0, 1'000'000), "Google Gemini")), 5);
    EXPECT_EQ(Cost::resolvedCostUSDWithFamilyFallback(session({}, usage(5, 5), "Mystery")), 0);
    // An implausible reported cost is no candidate of its own, but the resolved cost still is it.
    EXPECT_EQ(Cost::resolvedCostUSDWithFamilyFallback(session({}, usage(200'000, 0, 0, 0, 0.004), "Mystery")), 0.004);
}

TEST(CostRulesPure, FamilyKeysFollowTheFirstMatchingRule) {
    const std::tuple<std::optional<std::string_view>, std::optional<std::string_view>, const char*> cases[] = {
        {"claude-opus-4", {}, "claude"}, {{}, "Anthropic", "claude"}, {"x", "Big Haiku", "claude"},
        {"gpt-5", {}, "codex"},          {"o3", {}, "codex"},         {"O4-MINI", {}, "codex"},
        {"gemini-2.5-pro", {}, "gemini"}, {{}, "Google", "gemini"},   {"codex", "gemini", "codex"},
        {"llama", "Meta", "other"},      {{}, {}, "other"},
    };
    for (const auto& [id, name, family] : cases) EXPECT_EQ(Cost::familyKey(id, name), family);
    EXPECT_DOUBLE_EQ(Cost::familyCostUSD(usage(1'000'000, 1'000'000, 1'000'000, 1'000'000), "gemini"), 1.25 + 5 + 0.3125 + 1.25);
    EXPECT_DOUBLE_EQ(Cost::familyCostUSD(usage(1'000'000, 0, 0, 1'000'000), "codex"), 2.5);
    EXPECT_EQ(Cost::familyCostUSD(usage(1'000'000, 0), "other"), 0);
    // A zero sum with tokens left over (only possible with a negative count) is split 30 % to
    // input and 70 % to output: 800k tokens -> 0.24M x 3 + 0.56M x 15.
    EXPECT_DOUBLE_EQ(Cost::familyCostUSD(usage(1'000'000, -200'000), "claude"), 0.72 + 8.4);
}

TEST(CostRulesPure, PlausibilityAndWarpCredits) {
    EXPECT_FALSE(Cost::isPlausibleExactCost(0.004, 200'000));  // 0.02 dollars per million
    EXPECT_TRUE(Cost::isPlausibleExactCost(0.01, 200'000));    // 0.05 dollars per million
    EXPECT_TRUE(Cost::isPlausibleExactCost(0.000001, 100'000));
    EXPECT_FALSE(Cost::isPlausibleExactCost(0, 10));
    EXPECT_FALSE(Cost::isPlausibleExactCost(-1, 10));

    EXPECT_EQ(Cost::warpUSDPerCredit(" Business\n", std::nullopt), 0.03);
    EXPECT_EQ(Cost::warpUSDPerCredit("Pro", 18'000), 0.01);
    EXPECT_EQ(Cost::warpUSDPerCredit("Pro", std::nullopt), 0.012);
    EXPECT_EQ(Cost::warpUSDPerCredit("Lightspeed MAX", std::nullopt), 0.01);
    EXPECT_EQ(Cost::warpUSDPerCredit(std::nullopt, 18'000), 0.01);
    for (const char* tier : {"build", "prosumer", "", "Turbo"}) EXPECT_EQ(Cost::warpUSDPerCredit(tier, 10'000), 0.012);
}

}  // namespace
}  // namespace gaugepoint
