#pragma once

// This machine's own quota snapshot, made from what the log import recorded, for a widget on a
// machine without the companion app:
//   codex   the windows of the newest rate limits in its logs (a window whose reset has passed
//           reads 0 % used, without a reset), updated at that event's time;
//   claude  the active five-hour block as a window when the user set a block token limit;
//   each provider with usage: tokenUsage (the active block's tokens and cost as the session,
//           and the last 30 local days) and dailyTokenUsage (those days that had usage).
// The source is this machine (QuotaSyncConfiguration::localSourceID()).

#include <cstdint>
#include <optional>
#include <string_view>

#include "gaugepoint/model/QuotaSnapshot.hpp"
#include "gaugepoint/platform/LocalCalendar.hpp"
#include "gaugepoint/platform/QuotaSyncConfiguration.hpp"

namespace gaugepoint::LocalQuotaSnapshot {

// The user default that holds the Claude block token limit (a positive integer).
constexpr std::string_view claudeBlockTokenLimitKey = "quota.claudeBlockTokenLimit";
std::optional<std::int64_t> claudeBlockTokenLimit(const UserDefaults& defaults);
// Stores the limit; none removes it. Throws gaugepoint::Error when the defaults cannot be kept.
void setClaudeBlockTokenLimit(UserDefaults& defaults, std::optional<std::int64_t> limit);

// The snapshot at `now`, its days those of `calendar` (Gregorian). Throws
// QuotaSessionFileRegistryError when the imported records cannot be read.
QuotaSnapshot make(const QuotaSyncConfiguration& configuration, Date now, const LocalCalendar& calendar);

// Appends the snapshot to the history (kept configuration.historyRetentionDays), records its
// days in the token ledger and stores it as this machine's source record. Throws the stores'
// errors.
void publish(const QuotaSnapshot& snapshot, const QuotaSyncConfiguration& configuration);

// This machine's newest stored snapshot; none when there is none or it cannot be read.
std::optional<QuotaSnapshot> latest(const QuotaSyncConfiguration& configuration) noexcept;

}  // namespace gaugepoint::LocalQuotaSnapshot
