#pragma once

// The token limit of Claude's five-hour window when no reported reading is at hand: a number the
// user set, or "auto", an estimate from the user's own past blocks:
//   - take the completed (not active, not gap) blocks of the last 60 days;
//   - those within half of the largest of them came close to the limit (a block far below the
//     largest says nothing about where the wall is);
//   - with at least 3 such blocks, the limit is the 90th percentile (nearest rank) of their token
//     totals; with fewer there is no estimate.

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "gaugepoint/platform/UserDefaults.hpp"
#include "gaugepoint/reports/UsageBlocks.hpp"

namespace gaugepoint {

struct ClaudeBlockLimitSetting {
    std::optional<std::int64_t> tokens;  // a limit the user set
    bool automatic = false;              // "auto": estimate it from past blocks
    bool operator==(const ClaudeBlockLimitSetting&) const = default;
};

namespace ClaudeBlockLimit {

// The user default that holds the setting: a positive integer, or the string "auto".
constexpr std::string_view userDefaultsKey = "quota.claudeBlockTokenLimit";

ClaudeBlockLimitSetting setting(const UserDefaults& defaults);
// Stores the setting; neither a number nor automatic removes it. Throws gaugepoint::Error when
// the defaults cannot be kept.
void setSetting(UserDefaults& defaults, const ClaudeBlockLimitSetting& setting);

// The estimate from `blocks` (any provider's blocks, as usageBlocks gives them) at `now`; none
// when fewer than 3 completed blocks came close to the limit.
std::optional<std::int64_t> estimate(const std::vector<UsageBlock>& blocks, Date now);

// The limit in force for the stored Claude usage at `now`: the user's number, the estimate, or
// none. Throws QuotaSessionFileRegistryError when the usage cannot be read.
std::optional<std::int64_t> resolve(const ClaudeBlockLimitSetting& setting, const QuotaUsageEntryStore& store, Date now);

}  // namespace ClaudeBlockLimit
}  // namespace gaugepoint
