#pragma once

// This machine's own quota snapshot, made from what the log import recorded, for a widget on a
// machine without the companion app:
//   codex   the windows of the newest rate limits in its logs, as reported (a face shows a window
//           whose reset has passed as reset), updated at that event's time;
//   claude  the official five-hour and weekly windows Claude Code's status line reported, while
//           their period lasts; else the active five-hour block as an estimated window when a
//           block limit is set or estimated (ClaudeBlockLimit); else the official windows as
//           they were last reported;
//   each provider with usage: tokenUsage (the active block's tokens and cost as the session,
//           and the last 30 local days) and dailyTokenUsage (those days that had usage).
// Every provider's updatedAt says when its reading was taken. The source is this machine
// (QuotaSyncConfiguration::localSourceID()).

#include <optional>

#include "gaugepoint/model/QuotaSnapshot.hpp"
#include "gaugepoint/platform/LocalCalendar.hpp"
#include <map>
#include <string>

#include "gaugepoint/platform/QuotaSyncConfiguration.hpp"

namespace gaugepoint::LocalQuotaSnapshot {

// This machine as the source of a snapshot.
QuotaSnapshotSource source(const QuotaSyncConfiguration& configuration);

// The snapshot at `now`, its days those of `calendar` (Gregorian). Official Claude readings are
// taken from this machine's stored record when they are not newer than `now`. Throws
// QuotaSessionFileRegistryError when the imported records cannot be read.
QuotaSnapshot make(const QuotaSyncConfiguration& configuration, Date now, const LocalCalendar& calendar);

// Per provider, the tokens of the last `days` local days at `now` (30: the snapshot's, 1: today)
// that no price covers (left out of their cost); providers without any are left out. Never
// throws: empty when the imported records cannot be read.
std::map<std::string, std::int64_t> unpricedTokens(const QuotaSyncConfiguration& configuration, Date now,
                                                   const LocalCalendar& calendar, int days = 30) noexcept;

// What publish() wrote.
struct PublishResult {
    bool readingsChanged = false;  // a figure differs from the stored snapshot: history and ledger got it
    bool recordWritten = false;    // the source record was replaced
    bool operator==(const PublishResult&) const = default;
};

// Stores the snapshot as this machine's source record, in one transaction with what is stored:
// official Claude readings that arrived after the snapshot was made are kept. When a figure
// changed, also appends it to the history (kept configuration.historyRetentionDays) and records
// its days in the token ledger. When nothing changed the record is only refreshed once its
// readings are five minutes old, so an idle scan every minute writes almost nothing. Throws the
// stores' errors.
PublishResult publish(const QuotaSnapshot& snapshot, const QuotaSyncConfiguration& configuration);

// Whether two snapshots hold the same figures: equal but for when they were made and when each
// provider was read, and for the last bits of a double that a store's JSON gives back.
bool sameReadings(const QuotaSnapshot& a, const QuotaSnapshot& b);

// This machine's newest stored snapshot; none when there is none or it cannot be read.
std::optional<QuotaSnapshot> latest(const QuotaSyncConfiguration& configuration) noexcept;

}  // namespace gaugepoint::LocalQuotaSnapshot
