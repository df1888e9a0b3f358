#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "gaugepoint/model/QuotaSourceSnapshotRecord.hpp"
#include "gaugepoint/platform/Error.hpp"
#include "gaugepoint/platform/QuotaSyncConfiguration.hpp"
#include "gaugepoint/stores/SQLiteStore.hpp"

namespace gaugepoint {

enum class QuotaSourceSnapshotStoreErrorKind { missingAppGroupContainer, sqliteFailure, encodeFailure };

class QuotaSourceSnapshotStoreError : public KindedError<QuotaSourceSnapshotStoreErrorKind> {
public:
    // No App Group directory and no override; carries the App Group identifier.
    static QuotaSourceSnapshotStoreError missingAppGroupContainer(const std::string& identifier) {
        return {Kind::missingAppGroupContainer, "The App Group container is unavailable: " + identifier + "."};
    }
    static QuotaSourceSnapshotStoreError sqliteFailure(const std::string& message) { return {Kind::sqliteFailure, message}; }
    static QuotaSourceSnapshotStoreError encodeFailure(const std::string& message) { return {Kind::encodeFailure, message}; }

private:
    using KindedError::KindedError;
};

// The latest snapshot of every publishing source in "quota-source-snapshots.sqlite", with the
// channel it arrived by. A value: copies share one connection; calls from any thread serialise
// on it, and the companion app may use the same file at the same time.
//
// load() skips a row whose snapshot does not decompress or decode, as the history store does.
class QuotaSourceSnapshotStore : public SQLiteStore<QuotaSourceSnapshotStoreError> {
public:
    static constexpr std::string_view defaultFilename = "quota-source-snapshots.sqlite";

    // databaseURL() throws missingAppGroupContainer when there is no directory for the file.
    explicit QuotaSourceSnapshotStore(QuotaSyncConfiguration configuration = QuotaSyncConfiguration::standard(),
                                      const std::optional<std::filesystem::path>& containerURLOverride = std::nullopt);

    // Every record, newest first; the empty registry on any error.
    QuotaSourceSnapshotRegistry load() const noexcept;
    // One record by row id; none when absent. Throws QuotaSourceSnapshotStoreError.
    std::optional<QuotaSourceSnapshotRecord> loadRecord(std::string_view id) const;
    // Stores `snapshot` as the newest record of its source (see recordFor) and returns it. Throws.
    QuotaSourceSnapshotRecord upsert(const QuotaSnapshot& snapshot, const std::optional<std::string>& pairingToken,
                                     QuotaSourceSyncChannel channel) const;
    // Replaces record `id` by what `change` makes of its snapshot (none when there is no such
    // record or it cannot be read), read and written in one immediate transaction, so that
    // concurrent writers never lose each other's changes; `change` returning none writes
    // nothing. Returns the record written, if any. Throws.
    using SnapshotChange = std::function<std::optional<QuotaSnapshot>(const std::optional<QuotaSnapshot>&)>;
    std::optional<QuotaSourceSnapshotRecord> update(std::string_view id, QuotaSourceSyncChannel channel,
                                                    const SnapshotChange& change) const;
    // Replaces the whole table by `registry`, in one transaction. Throws.
    void save(const QuotaSourceSnapshotRegistry& registry) const;
    // Deletes by row id, source identifier or pairing token; each returns how many rows went. Throws.
    std::int64_t remove(std::string_view id) const;
    std::int64_t removeRecord(std::string_view id) const { return remove(id); }
    std::int64_t removeRecordsWithSourceID(std::string_view sourceID) const;
    std::int64_t removeRecordsWithPairingToken(std::string_view pairingToken) const;
    // Deletes every row; returns how many. Throws.
    std::int64_t clear() const;
    // Deletes records received more than `olderThanSeconds` ago, except the newest of each source
    // (by source id, else pairing token, else row id). Never throws; returns how many went.
    std::int64_t trimOldEntries(double olderThanSeconds) const noexcept;
    void walCheckpoint() const noexcept;

    // The record `upsert` writes: keyed by the snapshot's source, else the pairing token, else
    // the channel's name ("kvs", "pairing"), received now.
    QuotaSourceSnapshotRecord recordFor(const QuotaSnapshot& snapshot, const std::optional<std::string>& pairingToken,
                                        QuotaSourceSyncChannel channel) const;

private:
    template <class Operation>
    auto runSources(Operation&& operation) const;
};

}  // namespace gaugepoint
