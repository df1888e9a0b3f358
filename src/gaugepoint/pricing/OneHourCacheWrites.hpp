#pragma once

// Cache writes kept for an hour cost more than those kept for five minutes. The cost rules price
// every cache write at the model's cache-write price; this is what the one-hour part adds on
// top, so those rules and their figures stay as they are:
//   cost = cost of the four counts + one-hour tokens x (one-hour rate - cache-write rate) / 10^6.
// Pure functions over the catalogue, safe from any thread.

#include <cstdint>
#include <optional>
#include <string_view>

#include "gaugepoint/pricing/QuotaModelMetadata.hpp"

namespace gaugepoint::OneHourCacheWrites {

// US dollars per million one-hour cache-write tokens: the catalogue's own figure, else twice the
// input price; none when neither is known.
std::optional<double> costPerMillionUSD(const QuotaModelMetadata& model);

// What `tokens` one-hour cache writes of the model add to the catalogue price of their usage (may
// be negative where the catalogue states a lower one-hour price). 0 when the model does not
// resolve, has none of the four prices, or has no one-hour rate.
double surchargeUSD(std::int64_t tokens, std::optional<std::string_view> modelID,
                    std::optional<std::string_view> modelDisplayName);

}  // namespace gaugepoint::OneHourCacheWrites
