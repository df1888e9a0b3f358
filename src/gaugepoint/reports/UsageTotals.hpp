#pragma once

// Token counts and their cost for one row of a usage report (a day, a week, a session, a
// block), priced model by model: a cost the log reported wins, else the catalogue's prices;
// tokens of a model with neither are counted in `unpricedTokens`, never as $0. Cache writes kept
// for an hour are priced at their own rate (OneHourCacheWrites) on top of the four counts.

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "gaugepoint/model/QuotaSessionTokenUsage.hpp"
#include "gaugepoint/model/QuotaUsageRecords.hpp"
#include "gaugepoint/pricing/QuotaUsageCostMetrics.hpp"

namespace gaugepoint {

// One model's share of a row. `tokens.exactCostUSD` is not used.
struct UsageModelBreakdown {
    std::string modelName;
    QuotaSessionTokenUsage tokens;
    std::int64_t cacheWrite1hTokens = 0;  // the one-hour part of tokens.cacheWriteTokens
    double cost = 0;  // US dollars
    bool priced = true;  // false when no price and no reported cost covers its tokens: cost says nothing
    bool operator==(const UsageModelBreakdown&) const = default;
};

struct UsageTotals {
    QuotaSessionTokenUsage tokens;  // the four counts; exactCostUSD not used
    std::int64_t cacheWrite1hTokens = 0;  // the one-hour part of tokens.cacheWriteTokens
    QuotaUsageCharges charges;            // in the tools' own units, never in totalCost
    std::int64_t entries = 0;       // counted responses
    double totalCost = 0;           // US dollars, of the priced tokens only
    std::int64_t unpricedTokens = 0;
    QuotaUsageCostSource costSource = QuotaUsageCostSource::unavailable;
    std::vector<std::string> modelsUsed;               // by name; never "<synthetic>"
    std::vector<UsageModelBreakdown> modelBreakdowns;  // most cost first, then most tokens, then name
    bool operator==(const UsageTotals&) const = default;
};

// Usage gathered per model, and whether the log reported its cost.
class UsageTally {
public:
    // Adds `entries` responses of `model`. A present `tokens.exactCostUSD` above zero is the cost
    // the log reported for all of them; otherwise they are priced from the catalogue.
    // `cacheWrite1hTokens` is the one-hour part of their cache writes, `charges` what the tool
    // charged for them in its own units.
    void add(std::string_view model, std::int64_t entries, const QuotaSessionTokenUsage& tokens,
             std::int64_t cacheWrite1hTokens = 0, const QuotaUsageCharges& charges = {});
    void add(const UsageTally& other);
    bool empty() const { return parts_.empty(); }

    // The sums, priced. Token sums beyond int64 stop the program.
    UsageTotals totals() const;

private:
    struct Part {
        std::int64_t entries = 0;
        QuotaSessionTokenUsage tokens;
        std::int64_t cacheWrite1hTokens = 0;
        QuotaUsageCharges charges;
    };
    std::map<std::pair<std::string, bool>, Part, std::less<>> parts_;  // (model, cost reported)
};

}  // namespace gaugepoint
