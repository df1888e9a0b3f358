#include "gaugepoint/pricing/OneHourCacheWrites.hpp"

#include "gaugepoint/pricing/QuotaMetadataCatalog.hpp"

namespace gaugepoint::OneHourCacheWrites {

std::optional<double> costPerMillionUSD(const QuotaModelMetadata& model) {
    if (model.cacheWrite1hCostPerMillionUSD) return model.cacheWrite1hCostPerMillionUSD;
    if (model.inputCostPerMillionUSD) return 2 * *model.inputCostPerMillionUSD;
    return std::nullopt;
}

double surchargeUSD(std::int64_t tokens, std::optional<std::string_view> modelID,
                    std::optional<std::string_view> modelDisplayName) {
    if (tokens <= 0) return 0;
    const auto model = QuotaMetadataCatalog::resolvedModel(modelID, modelDisplayName);
    // A model without any price is unpriced as a whole: its one-hour part adds nothing either.
    if (!model || !model->hasAnyPrice()) return 0;
    const auto rate = costPerMillionUSD(*model);
    if (!rate) return 0;
    // The four counts already priced these tokens at the cache-write price (nothing when unknown).
    return double(tokens) / 1'000'000.0 * (*rate - model->cacheWriteCostPerMillionUSD.value_or(0));
}

}  // namespace gaugepoint::OneHourCacheWrites
