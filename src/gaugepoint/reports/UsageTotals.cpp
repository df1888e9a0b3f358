#include "gaugepoint/reports/UsageTotals.hpp"

#include <algorithm>

#include "gaugepoint/platform/Fatal.hpp"
#include "gaugepoint/pricing/OneHourCacheWrites.hpp"
#include "gaugepoint/pricing/QuotaModelCostEstimator.hpp"

namespace gaugepoint {
namespace {

// Lines the tool itself wrote (errors, notices) carry this model; they are never usage.
constexpr std::string_view kSyntheticModel = "<synthetic>";

QuotaSessionModelUsageSummary summary(const std::string& model, std::int64_t entries, const QuotaSessionTokenUsage& tokens) {
    QuotaSessionModelUsageSummary s;
    s.id = model;
    s.displayName = model;
    s.sessionCount = 1;
    s.messageCount = entries;
    s.tokenUsage = tokens;
    return s;
}

QuotaSessionTokenUsage countsOnly(QuotaSessionTokenUsage tokens) {
    tokens.exactCostUSD.reset();
    return tokens;
}

}  // namespace

void UsageTally::add(std::string_view model, std::int64_t entries, const QuotaSessionTokenUsage& tokens,
                     std::int64_t cacheWrite1hTokens, const QuotaUsageCharges& charges) {
    const bool reported = tokens.exactCostUSD.value_or(0) > 0;
    Part& part = parts_[{std::string(model), reported}];
    part.entries += entries;
    part.cacheWrite1hTokens = checkedAdd(part.cacheWrite1hTokens, cacheWrite1hTokens);
    part.charges += charges;
    if (!reported) {
        part.tokens += countsOnly(tokens);
    } else {
        part.tokens += tokens;
    }
}

void UsageTally::add(const UsageTally& other) {
    for (const auto& [key, part] : other.parts_) add(key.first, part.entries, part.tokens, part.cacheWrite1hTokens, part.charges);
}

UsageTotals UsageTally::totals() const {
    UsageTotals totals;
    std::vector<QuotaSessionModelUsageSummary> all;
    // The parts of one model are neighbours in the map: (model, false), (model, true).
    for (auto it = parts_.begin(); it != parts_.end();) {
        const std::string& model = it->first.first;
        std::vector<QuotaSessionModelUsageSummary> ofModel;
        UsageModelBreakdown breakdown{model, {}, 0, 0, true};
        std::int64_t estimated1h = 0;  // one-hour cache writes without a reported cost
        for (; it != parts_.end() && it->first.first == model; ++it) {
            ofModel.push_back(summary(model, it->second.entries, it->second.tokens));
            breakdown.tokens += countsOnly(it->second.tokens);
            breakdown.cacheWrite1hTokens = checkedAdd(breakdown.cacheWrite1hTokens, it->second.cacheWrite1hTokens);
            if (!it->first.second) estimated1h = it->second.cacheWrite1hTokens;
            totals.entries += it->second.entries;
            totals.charges += it->second.charges;
        }
        // A reported cost already holds whatever the one-hour writes cost.
        breakdown.cost = QuotaModelCostEstimator::resolvedCostUSD(ofModel, {}) +
                         OneHourCacheWrites::surchargeUSD(estimated1h, model, model);
        breakdown.priced = QuotaModelCostEstimator::unpricedTokens(ofModel) == 0;
        totals.tokens += breakdown.tokens;
        totals.cacheWrite1hTokens = checkedAdd(totals.cacheWrite1hTokens, breakdown.cacheWrite1hTokens);
        totals.totalCost += breakdown.cost;
        if (model != kSyntheticModel) totals.modelsUsed.push_back(model);
        totals.modelBreakdowns.push_back(std::move(breakdown));
        all.insert(all.end(), ofModel.begin(), ofModel.end());
    }
    totals.unpricedTokens = QuotaModelCostEstimator::unpricedTokens(all);
    totals.costSource = QuotaModelCostEstimator::costMetrics(all, {}).costSource;
    std::stable_sort(totals.modelBreakdowns.begin(), totals.modelBreakdowns.end(), [](const auto& a, const auto& b) {
        if (a.cost != b.cost) return a.cost > b.cost;
        return a.tokens.totalTokens() > b.tokens.totalTokens();
    });
    return totals;
}

}  // namespace gaugepoint
