#pragma once

// What this machine knows of each sync server it talks to, kept beside the stores it describes
// (quota-sync-state.sqlite in the App Group directory): how far it has pulled, the change tag of
// every record it has written or read there, the notify events it has handed over or received,
// when it last pushed and pulled, and running counts. Servers are told apart by a key made from
// the role, host, port and database.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "gaugepoint/platform/Error.hpp"
#include "gaugepoint/stores/SQLiteStore.hpp"

namespace gaugepoint {

class SyncStateStoreError : public Error {
public:
    static SyncStateStoreError missingAppGroupContainer(const std::string& identifier) {
        return SyncStateStoreError{"The App Group container is unavailable: " + identifier + "."};
    }
    static SyncStateStoreError sqliteFailure(const std::string& message) { return SyncStateStoreError{message}; }

private:
    explicit SyncStateStoreError(const std::string& message) : Error(message) {}
};

// One server as this machine last left it.
struct SyncServerState {
    std::string key;
    std::string description;  // "alice@host:5432/db", no secrets
    std::int64_t pulledThrough = 0;  // the change sequence of the last record applied
    std::optional<Date> lastPushAt, lastPullAt;
    std::string pushedEpoch;                // the epoch of the last push
    std::string pushedSnapshotFingerprint;  // this machine's source record as last pushed
    std::int64_t recordsPushed = 0, recordsPulled = 0, skippedForeignEpoch = 0;
};

// What one committed batch or applied page changes beside the server's state: tags seen, and
// envelopes now known or gone.
struct SyncStateChange {
    std::vector<std::pair<std::string, std::string>> tags;  // record name, change tag
    std::vector<std::pair<std::string, Date>> envelopesKnown;
    std::vector<std::string> envelopesGone;
    bool forgetEnvelopes = false;  // all of them, before the two lists apply
};

class SyncStateStore : public SQLiteStore<SyncStateStoreError> {
public:
    static constexpr std::string_view defaultFilename = "quota-sync-state.sqlite";

    explicit SyncStateStore(QuotaSyncConfiguration configuration);

    // The server's state; a fresh one (nothing pulled) for a server not seen before. Throws.
    SyncServerState server(std::string_view key) const;

    // The change tags last seen of these records (absent: never seen). Throws.
    std::unordered_map<std::string, std::string> tags(std::string_view key, const std::vector<std::string>& names) const;

    // Notify events handed over or received, with their creation times. Throws.
    std::map<std::string, Date> knownEnvelopes(std::string_view key) const;

    // Writes the server's state and `change` in one transaction. Throws.
    using Change = SyncStateChange;
    void save(const SyncServerState& state, const Change& change = {}) const;

private:
    template <class Operation>
    auto runState(Operation&& operation) const;
};

}  // namespace gaugepoint
