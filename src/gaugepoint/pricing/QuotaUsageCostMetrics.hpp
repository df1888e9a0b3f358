#pragma once

#include <boost/describe/class.hpp>
#include <boost/describe/enum.hpp>

#include "gaugepoint/platform/Hashing.hpp"

namespace gaugepoint {

// How far a cost can be trusted: reported by the provider, estimated from catalogue prices, a
// mix of the two (or with unpriced tokens beside them), or not known at all.
enum class QuotaUsageCostSource { exact, estimated, mixed, unavailable };
BOOST_DESCRIBE_ENUM(QuotaUsageCostSource, exact, estimated, mixed, unavailable)

// What caching saved on priced usage, in US dollars.
struct QuotaUsageCostMetrics {
    double baselineCostWithoutCacheUSD = 0;  // the same tokens priced as if nothing had been cached
    double estimatedSavingsUSD = 0;          // baseline minus the cost, never negative
    QuotaUsageCostSource costSource = QuotaUsageCostSource::unavailable;

    static const QuotaUsageCostMetrics zero;

    bool operator==(const QuotaUsageCostMetrics&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaUsageCostMetrics, (), (baselineCostWithoutCacheUSD, estimatedSavingsUSD, costSource))

inline const QuotaUsageCostMetrics QuotaUsageCostMetrics::zero{0, 0, QuotaUsageCostSource::unavailable};

}  // namespace gaugepoint

GAUGEPOINT_DECLARE_HASH(gaugepoint::QuotaUsageCostMetrics);
