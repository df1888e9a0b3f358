#pragma once

// The vocabulary of same-account sync (version 2) between the user's own machines through one
// private cloud record zone, and the sync epoch that every record carries.
//
// Epoch. Records carry the epoch they were written under; readers skip records of any other
// epoch. The epoch is kept twice: locally in the user defaults, and in the ubiquitous key-value
// store that all of the user's machines share. A destructive reset (wiping the zone) starts a
// new epoch on every machine, because each adopts the cloud's epoch:
//
//   - local and cloud agree: nothing changes;
//   - the cloud holds an epoch and the local one differs or is missing: the cloud wins and is
//     copied to the local keys. The cloud's epoch is the newest agreement among the machines; a
//     differing local epoch is stale (another machine reset, or two machines bootstrapped at
//     once and the other wrote last). Whoever keeps a mirror of pulled records notes the epoch
//     it was built under and discards it when the epoch returned here differs: its records all
//     belong to an epoch that readers now skip;
//   - only the local one exists: it is published to the cloud;
//   - neither exists: a new epoch is made and written to both, as by a destructive reset.

#include <boost/describe/class.hpp>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "gaugepoint/platform/Date.hpp"
#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/platform/UbiquitousKeyValueStore.hpp"
#include "gaugepoint/platform/UserDefaults.hpp"
#include "gaugepoint/platform/Uuid.hpp"

namespace gaugepoint::QuotaSameAccountSyncV2 {

// The zone, owned by the current user, in the user's private database.
inline constexpr std::string_view privateZoneName = "GaugepointSameAccountV2";
// Written into every record and beside every stored epoch.
inline constexpr std::int64_t schemaVersion = 2;

namespace RecordType {
inline constexpr std::string_view sourceDevice = "GpSourceDevice";          // one publishing machine
inline constexpr std::string_view snapshotHot = "GpSnapshotHot";            // a source's latest snapshot
inline constexpr std::string_view sessionDescriptor = "GpSessionDescriptor";  // one coding session
inline constexpr std::string_view transcriptBundle = "GpTranscriptBundle";  // one session's transcript
inline constexpr std::string_view notifyEvent = "GpNotifyEvent";            // one notification
// Declared for the zone's schema; no record of these types is written. A deletion is a record of
// the live type with isTombstoned set.
inline constexpr std::string_view syncManifest = "GpSyncManifest";
inline constexpr std::string_view tombstone = "GpTombstone";
}  // namespace RecordType

// The five live record types.
inline constexpr std::array<std::string_view, 5> recordTypes = {
    RecordType::sourceDevice, RecordType::snapshotHot, RecordType::sessionDescriptor, RecordType::transcriptBundle,
    RecordType::notifyEvent};

// Where the epoch is kept: the local keys in the user defaults, the cloud keys in the
// ubiquitous key-value store.
namespace Key {
inline constexpr std::string_view localSyncEpoch = "quota.same_account_sync.v2.epoch";
inline constexpr std::string_view localSchemaVersion = "quota.same_account_sync.v2.schema_version";
inline constexpr std::string_view localResetAt = "quota.same_account_sync.v2.reset_at";
inline constexpr std::string_view cloudSyncEpoch = "quota_same_account_sync_v2_epoch";
inline constexpr std::string_view cloudSchemaVersion = "quota_same_account_sync_v2_schema_version";
inline constexpr std::string_view cloudResetAt = "quota_same_account_sync_v2_reset_at";
}  // namespace Key

// An epoch with its schema version and the time it was started. The two flags are set only by
// ensureBootstrapped and markDestructiveReset: whether the local keys, and the cloud keys, hold
// this epoch when they return (the cloud flag is absent when no cloud store was given).
struct EpochState {
    std::string epoch;
    std::int64_t schemaVersion = 0;
    Date resetAt;
    std::optional<bool> localDefaultsSynchronized;
    std::optional<bool> cloudMirrorSynchronized;

    bool operator==(const EpochState&) const = default;
};
BOOST_DESCRIBE_STRUCT(EpochState, (), (epoch, schemaVersion, resetAt, localDefaultsSynchronized, cloudMirrorSynchronized))

// "v2-" + whole milliseconds since 1970 of `now` (rounded, halves away from zero) + "-" + the
// UUID in lower case: "v2-1763716740000-1b4e28ba-2fa1-41d2-883f-0016d3cca427".
std::string makeEpoch(Date now, const Uuid& uuid);

// The epoch under the local keys; none unless the epoch is a non-empty text, the schema version
// an integer and the reset time a date (seconds since 1970, or an ISO 8601 text).
std::optional<EpochState> currentEpoch(const UserDefaults& defaults);

// The epoch under the cloud key; none unless it is a non-empty text.
std::optional<std::string> cloudEpoch(const UbiquitousKeyValueStore& cloud);

// The epoch in force, reconciled between the local and the cloud keys as described at the top
// of this file; a new epoch from `now` and `uuid` when there is none. Never throws for a store
// that cannot be written: the flags of the result say which stores hold the epoch.
EpochState ensureBootstrapped(UserDefaults& defaults, UbiquitousKeyValueStore* cloud, Date now, const Uuid& uuid);

// Starts a new epoch (makeEpoch(now, uuid)), written with the schema version and `now` as the
// reset time under the local keys and, when `cloud` is given, under the cloud keys. Never throws
// for a store that cannot be written; the flags of the result say which stores hold it.
EpochState markDestructiveReset(UserDefaults& defaults, UbiquitousKeyValueStore* cloud, Date now, const Uuid& uuid);

}  // namespace gaugepoint::QuotaSameAccountSyncV2
