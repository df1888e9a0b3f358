#pragma once

// Turns token counts into US dollars: catalogue prices per million tokens (QuotaMetadataCatalog),
// a built-in price per model family where the catalogue has none, what the same tokens would
// have cost without prompt caching, and the value of one Warp credit. Pure functions, safe from
// any thread. Token sums beyond int64 stop the program.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "gaugepoint/model/QuotaSessionDescriptor.hpp"
#include "gaugepoint/pricing/QuotaUsageCostMetrics.hpp"

namespace gaugepoint {

// US dollars per million tokens of one model family.
struct FamilyFallbackPricing {
    double inputPer1M = 0;
    double outputPer1M = 0;
    double cacheReadPer1M = 0;
    double cacheWritePer1M = 0;
};

namespace QuotaModelCostEstimator {

// The catalogue price of one usage: the sum over the kinds whose price is known of tokens / 10^6
// x price. None when the model does not resolve or has no price at all.
std::optional<double> estimatedCostUSD(const QuotaSessionTokenUsage& tokenUsage, std::optional<std::string_view> modelID,
                                       std::optional<std::string_view> modelDisplayName);

// The same usage as if nothing had been cached: every cache-read and cache-write token priced as
// a fresh input token (missing prices stand in for each other). None as above.
std::optional<double> estimatedBaselineCostWithoutCacheUSD(const QuotaSessionTokenUsage& tokenUsage,
                                                           std::optional<std::string_view> modelID,
                                                           std::optional<std::string_view> modelDisplayName);

// The cost of per-model usages: the total's reported cost when above zero (or when the list is
// empty), else each entry's reported cost or catalogue price summed; the total's reported cost
// (zero or below) when no entry adds anything.
double resolvedCostUSD(const std::vector<QuotaSessionModelUsageSummary>& models, const QuotaSessionTokenUsage& fallback);
double resolvedCostUSD(const QuotaSessionDescriptor& descriptor);
double resolvedCostUSD(const QuotaSessionAggregateSnapshot& aggregate);

// The cost of per-model usages without caching: catalogue-priced entries at their baseline,
// others at their reported cost; the total's reported cost when the list is empty or adds nothing.
double estimatedBaselineCostWithoutCacheUSD(const std::vector<QuotaSessionModelUsageSummary>& models,
                                            const QuotaSessionTokenUsage& fallback);
double estimatedBaselineCostWithoutCacheUSD(const QuotaSessionDescriptor& descriptor);
double estimatedBaselineCostWithoutCacheUSD(const QuotaSessionAggregateSnapshot& aggregate);

// Baseline, savings (never negative) and how the cost was arrived at.
QuotaUsageCostMetrics costMetrics(const std::vector<QuotaSessionModelUsageSummary>& models,
                                  const QuotaSessionTokenUsage& total);
QuotaUsageCostMetrics costMetrics(const QuotaSessionDescriptor& descriptor);
QuotaUsageCostMetrics costMetrics(const QuotaSessionAggregateSnapshot& aggregate);

// The tokens of the per-model usages that neither report a cost nor have a catalogue price:
// what a cost from resolvedCostUSD() leaves out.
std::int64_t unpricedTokens(const std::vector<QuotaSessionModelUsageSummary>& models);

// The largest of: the session's reported cost when plausible, its resolved cost, the family
// prices of its per-model usages, and the family price of its total under its provider's
// display name; 0 when none is above zero. The largest wins even over a reported cost.
double resolvedCostUSDWithFamilyFallback(const QuotaSessionDescriptor& descriptor);

// A reported cost above zero is plausible up to 100,000 tokens, and beyond that only at five
// cents or more per million tokens.
bool isPlausibleExactCost(double cost, std::int64_t totalTokens);

// US dollars per Warp credit: 0.03 for a business tier, 0.01 for a max tier or a monthly limit
// of 18,000 credits, else 0.012.
double warpUSDPerCredit(std::optional<std::string_view> tierName, std::optional<std::int64_t> monthlyLimit);

// The family of a model for the fallback table ("claude", "codex", "gemini", or "other"), from
// its id and display name joined by a space.
std::string familyKey(std::optional<std::string_view> modelID, std::optional<std::string_view> displayName);

// The family's built-in prices, keyed by family ("other" has none). Built once.
const std::unordered_map<std::string, FamilyFallbackPricing>& familyFallbackPricing();

// A usage priced by its family's built-in prices; 0 for a family without any.
double familyCostUSD(const QuotaSessionTokenUsage& tokenUsage, std::string_view family);

}  // namespace QuotaModelCostEstimator
}  // namespace gaugepoint
