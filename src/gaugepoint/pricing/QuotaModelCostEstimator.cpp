#include "gaugepoint/pricing/QuotaModelCostEstimator.hpp"

#include <algorithm>
#include <array>

#include "gaugepoint/platform/Fatal.hpp"
#include "gaugepoint/platform/Text.hpp"
#include "gaugepoint/pricing/QuotaMetadataCatalog.hpp"

namespace gaugepoint::QuotaModelCostEstimator {
namespace {

constexpr double tokensPerMillion = 1'000'000.0;

double millions(std::int64_t tokens) { return double(tokens) / tokensPerMillion; }

bool hasExactCost(const QuotaSessionTokenUsage& usage) { return usage.exactCostUSD.value_or(0) > 0; }

QuotaModelMetadataRef pricedModel(std::optional<std::string_view> id, std::optional<std::string_view> displayName) {
    auto model = QuotaMetadataCatalog::resolvedModel(id, displayName);
    return model && model->hasAnyPrice() ? model : nullptr;
}

QuotaModelMetadataRef pricedModel(const QuotaSessionModelUsageSummary& entry) {
    return pricedModel(entry.id, entry.displayName);
}


double costAtPrices(const QuotaSessionTokenUsage& usage, const QuotaModelMetadata& model) {
    double cost = 0;
    if (model.inputCostPerMillionUSD) cost += millions(usage.inputTokens) * *model.inputCostPerMillionUSD;
    if (model.outputCostPerMillionUSD) cost += millions(usage.outputTokens) * *model.outputCostPerMillionUSD;
    if (model.cacheReadCostPerMillionUSD) cost += millions(usage.cacheReadTokens) * *model.cacheReadCostPerMillionUSD;
    if (model.cacheWriteCostPerMillionUSD) cost += millions(usage.cacheWriteTokens) * *model.cacheWriteCostPerMillionUSD;
    return cost;
}

// Assumes at least one price is present.
double baselineAtPrices(const QuotaSessionTokenUsage& usage, const QuotaModelMetadata& model) {
    const double inputRate = model.inputCostPerMillionUSD.value_or(model.outputCostPerMillionUSD.value_or(
        model.cacheReadCostPerMillionUSD.value_or(model.cacheWriteCostPerMillionUSD.value_or(0))));
    const double outputRate = model.outputCostPerMillionUSD.value_or(model.inputCostPerMillionUSD.value_or(
        model.cacheReadCostPerMillionUSD.value_or(model.cacheWriteCostPerMillionUSD.value_or(0))));
    const std::int64_t cached = checkedAdd(usage.cacheReadTokens, usage.cacheWriteTokens);
    return millions(usage.inputTokens) * inputRate + millions(usage.outputTokens) * outputRate +
           millions(cached) * inputRate;
}

// A per-model entry with its catalogue model (null when unpriced), resolved once for all the
// rules that look at it.
struct PricedEntry {
    const QuotaSessionModelUsageSummary* entry;
    QuotaModelMetadataRef model;
};

std::vector<PricedEntry> priced(const std::vector<QuotaSessionModelUsageSummary>& models) {
    std::vector<PricedEntry> list;
    list.reserve(models.size());
    for (const auto& entry : models) list.push_back({&entry, pricedModel(entry)});
    return list;
}

double resolvedCost(const std::vector<PricedEntry>& entries, const QuotaSessionTokenUsage& fallback) {
    const double fallbackCost = fallback.exactCostUSD.value_or(0);
    if (fallbackCost > 0 || entries.empty()) return fallbackCost;
    double sum = 0;
    bool added = false;
    for (const auto& [entry, model] : entries) {
        if (hasExactCost(entry->tokenUsage)) {
            sum += *entry->tokenUsage.exactCostUSD;
            added = true;
        } else if (model) {
            sum += costAtPrices(entry->tokenUsage, *model);
            added = true;
        }
    }
    return added ? sum : fallbackCost;
}

double baselineCost(const std::vector<PricedEntry>& entries, const QuotaSessionTokenUsage& fallback) {
    double sum = 0;
    bool added = false;
    for (const auto& [entry, model] : entries) {
        if (model) {
            sum += baselineAtPrices(entry->tokenUsage, *model);
            added = true;
        } else if (hasExactCost(entry->tokenUsage)) {
            sum += *entry->tokenUsage.exactCostUSD;
            added = true;
        }
    }
    return added ? sum : fallback.exactCostUSD.value_or(0);
}

// Each entry is exact (its own reported cost), estimated (catalogue-priced), unpriced (neither,
// with tokens) or ignored (neither, without tokens); two or three of the first three kinds mix.
QuotaUsageCostSource costSource(const std::vector<PricedEntry>& entries, const QuotaSessionTokenUsage& total) {
    if (hasExactCost(total)) return QuotaUsageCostSource::exact;
    if (entries.empty()) return QuotaUsageCostSource::unavailable;
    bool exact = false, estimated = false, unpriced = false;
    for (const auto& [entry, model] : entries) {
        if (hasExactCost(entry->tokenUsage)) {
            exact = true;
        } else if (model) {
            estimated = true;
        } else if (entry->tokenUsage.totalTokens() > 0) {
            unpriced = true;
        }
    }
    if (int(exact) + int(estimated) + int(unpriced) >= 2) return QuotaUsageCostSource::mixed;
    if (exact) return QuotaUsageCostSource::exact;
    if (estimated) return QuotaUsageCostSource::estimated;
    return QuotaUsageCostSource::unavailable;
}

QuotaUsageCostMetrics metrics(const std::vector<QuotaSessionModelUsageSummary>& models,
                              const QuotaSessionTokenUsage& total) {
    const auto entries = priced(models);
    const double resolved = resolvedCost(entries, total);
    const double baseline = baselineCost(entries, total);
    const double savings = baseline - resolved;
    return {baseline, savings >= 0 ? savings : 0, costSource(entries, total)};
}

}  // namespace

std::optional<double> estimatedCostUSD(const QuotaSessionTokenUsage& tokenUsage, std::optional<std::string_view> modelID,
                                       std::optional<std::string_view> modelDisplayName) {
    const auto model = pricedModel(modelID, modelDisplayName);
    if (!model) return std::nullopt;
    return costAtPrices(tokenUsage, *model);
}

std::optional<double> estimatedBaselineCostWithoutCacheUSD(const QuotaSessionTokenUsage& tokenUsage,
                                                           std::optional<std::string_view> modelID,
                                                           std::optional<std::string_view> modelDisplayName) {
    const auto model = pricedModel(modelID, modelDisplayName);
    if (!model) return std::nullopt;
    return baselineAtPrices(tokenUsage, *model);
}

double resolvedCostUSD(const std::vector<QuotaSessionModelUsageSummary>& models, const QuotaSessionTokenUsage& fallback) {
    if (fallback.exactCostUSD.value_or(0) > 0) return *fallback.exactCostUSD;  // no lookups needed
    return resolvedCost(priced(models), fallback);
}

double resolvedCostUSD(const QuotaSessionDescriptor& descriptor) {
    return resolvedCostUSD(descriptor.topModels, descriptor.tokenUsage);
}

double resolvedCostUSD(const QuotaSessionAggregateSnapshot& aggregate) {
    return resolvedCostUSD(aggregate.modelUsage, aggregate.tokenUsage);
}

double estimatedBaselineCostWithoutCacheUSD(const std::vector<QuotaSessionModelUsageSummary>& models,
                                            const QuotaSessionTokenUsage& fallback) {
    return baselineCost(priced(models), fallback);
}

double estimatedBaselineCostWithoutCacheUSD(const QuotaSessionDescriptor& descriptor) {
    return estimatedBaselineCostWithoutCacheUSD(descriptor.topModels, descriptor.tokenUsage);
}

double estimatedBaselineCostWithoutCacheUSD(const QuotaSessionAggregateSnapshot& aggregate) {
    return estimatedBaselineCostWithoutCacheUSD(aggregate.modelUsage, aggregate.tokenUsage);
}

QuotaUsageCostMetrics costMetrics(const std::vector<QuotaSessionModelUsageSummary>& models,
                                  const QuotaSessionTokenUsage& total) {
    return metrics(models, total);
}

std::int64_t unpricedTokens(const std::vector<QuotaSessionModelUsageSummary>& models) {
    std::int64_t tokens = 0;
    for (const auto& entry : models) {
        if (!hasExactCost(entry.tokenUsage) && !pricedModel(entry)) tokens = checkedAdd(tokens, entry.tokenUsage.totalTokens());
    }
    return tokens;
}

QuotaUsageCostMetrics costMetrics(const QuotaSessionDescriptor& descriptor) {
    return metrics(descriptor.topModels, descriptor.tokenUsage);
}

QuotaUsageCostMetrics costMetrics(const QuotaSessionAggregateSnapshot& aggregate) {
    return metrics(aggregate.modelUsage, aggregate.tokenUsage);
}

double resolvedCostUSDWithFamilyFallback(const QuotaSessionDescriptor& descriptor) {
    const auto& total = descriptor.tokenUsage;
    double best = 0;
    const auto consider = [&](double candidate) { best = std::max(best, candidate); };
    if (hasExactCost(total) && isPlausibleExactCost(*total.exactCostUSD, total.totalTokens())) {
        consider(*total.exactCostUSD);
    }
    consider(resolvedCostUSD(descriptor));
    double byFamily = 0;
    for (const auto& entry : descriptor.topModels) {
        byFamily += familyCostUSD(entry.tokenUsage, familyKey(entry.id, entry.displayName));
    }
    consider(byFamily);
    consider(familyCostUSD(total, familyKey(std::nullopt, descriptor.provider.displayName)));
    return best;
}

bool isPlausibleExactCost(double cost, std::int64_t totalTokens) {
    if (!(cost > 0)) return false;
    if (totalTokens <= 100'000) return true;
    return cost * tokensPerMillion / double(totalTokens) >= 0.05;
}

double warpUSDPerCredit(std::optional<std::string_view> tierName, std::optional<std::int64_t> monthlyLimit) {
    const std::string tier = lowercased(trimmed(tierName.value_or(std::string_view{})));
    if (tier.find("business") != std::string::npos) return 0.03;
    if (tier.find("max") != std::string::npos || monthlyLimit == 18'000) return 0.01;
    return 0.012;  // build, pro, prosumer and every other tier
}

std::string familyKey(std::optional<std::string_view> modelID, std::optional<std::string_view> displayName) {
    std::string joined;
    for (const auto& part : {modelID, displayName}) {
        if (!part || part->empty()) continue;
        if (!joined.empty()) joined += ' ';
        joined += *part;
    }
    const std::string text = lowercased(joined);
    static constexpr std::array<std::pair<std::string_view, std::string_view>, 12> rules{{
        {"claude", "claude"}, {"anthropic", "claude"}, {"opus", "claude"}, {"sonnet", "claude"},
        {"haiku", "claude"},  {"gpt", "codex"},        {"codex", "codex"}, {"openai", "codex"},
        {"o3", "codex"},      {"o4", "codex"},         {"gemini", "gemini"}, {"google", "gemini"},
    }};
    for (const auto& [contains, family] : rules) {
        if (text.find(contains) != std::string::npos) return std::string(family);
    }
    return "other";
}

const std::unordered_map<std::string, FamilyFallbackPricing>& familyFallbackPricing() {
    static const std::unordered_map<std::string, FamilyFallbackPricing> table{
        {"claude", {3.0, 15.0, 0.3, 3.75}},
        {"codex", {1.25, 10.0, 0.125, 1.25}},
        {"gemini", {1.25, 5.0, 0.3125, 1.25}},
    };
    return table;
}

double familyCostUSD(const QuotaSessionTokenUsage& tokenUsage, std::string_view family) {
    const auto& table = familyFallbackPricing();
    const auto found = table.find(std::string(family));
    if (found == table.end()) return 0;
    const FamilyFallbackPricing& p = found->second;
    const double cost = millions(tokenUsage.inputTokens) * p.inputPer1M + millions(tokenUsage.outputTokens) * p.outputPer1M +
                        millions(tokenUsage.cacheReadTokens) * p.cacheReadPer1M +
                        millions(tokenUsage.cacheWriteTokens) * p.cacheWritePer1M;
    const std::int64_t total = tokenUsage.totalTokens();
    if (cost == 0 && total > 0) {
        // Kept as stated although, with counts that are never negative, it cannot happen.
        return (0.3 * double(total) / tokensPerMillion) * p.inputPer1M +
               (0.7 * double(total) / tokensPerMillion) * p.outputPer1M;
    }
    return cost;
}

}  // namespace gaugepoint::QuotaModelCostEstimator
