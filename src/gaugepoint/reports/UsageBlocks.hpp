#pragma once

// Five-hour blocks: how the assistants' five-hour allowances are spent, from the time of each
// counted response. A block starts at the top of the UTC hour of its first entry and ends five
// hours later. An entry more than five hours after the block's start, or after the entry before
// it, starts the next block (exactly five hours still joins). When more than five hours pass
// between two entries, a gap block runs from the earlier entry plus five hours to the later
// entry. A block is active while now is less than five hours after its last entry and before
// its end.

#include <optional>
#include <vector>

#include "gaugepoint/model/QuotaUsageRecords.hpp"
#include "gaugepoint/reports/UsageTotals.hpp"
#include "gaugepoint/stores/QuotaUsageEntryStore.hpp"

namespace gaugepoint {

// The pace of an active block since its first entry.
struct UsageBurnRate {
    double tokensPerMinute = 0;
    double costPerHour = 0;  // US dollars
    bool operator==(const UsageBurnRate&) const = default;
};

// Where an active block ends up when the pace holds until its end.
struct UsageBlockProjection {
    std::int64_t totalTokens = 0;
    double totalCost = 0;
    std::int64_t remainingMinutes = 0;
    bool operator==(const UsageBlockProjection&) const = default;
};

struct UsageBlock {
    Date startTime;
    Date endTime;
    std::optional<Date> actualEndTime;  // the last entry; none for a gap
    bool isActive = false;
    bool isGap = false;
    UsageTotals totals;
    std::optional<UsageBurnRate> burnRate;          // active blocks whose entries span time
    std::optional<UsageBlockProjection> projection;  // likewise
    bool operator==(const UsageBlock&) const = default;
};

// The sum of the blocks' own figures (tokens, costs as priced per block, unpriced tokens), for a
// total row.
UsageTotals usageBlockTotals(const std::vector<UsageBlock>& blocks);

// The blocks of `entries` (any order), by start time; gap blocks included.
std::vector<UsageBlock> usageBlocks(std::vector<QuotaUsageEntry> entries, Date now);

// The active block of one provider's stored entries, if any: reads back from now only as far as
// the run of blocks it belongs to. Throws QuotaSessionFileRegistryError.
std::optional<UsageBlock> activeUsageBlock(const QuotaUsageEntryStore& store, const std::string& providerID, Date now);

}  // namespace gaugepoint
