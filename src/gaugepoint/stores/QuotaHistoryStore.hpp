#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "gaugepoint/model/QuotaHistoryTimeline.hpp"
#include "gaugepoint/platform/Error.hpp"
#include "gaugepoint/platform/QuotaSyncConfiguration.hpp"
#include "gaugepoint/stores/SQLiteConnectionHolder.hpp"
#include "gaugepoint/stores/SQLiteStore.hpp"

namespace gaugepoint {

enum class QuotaHistoryStoreErrorKind { sqliteFailure, missingLocalStorageContainer };

class QuotaHistoryStoreError : public KindedError<QuotaHistoryStoreErrorKind> {
public:
    // The step's label, ": " and SQLite's message ("prepare append: no such table: ...").
    static QuotaHistoryStoreError sqliteFailure(const std::string& message) { return {Kind::sqliteFailure, message}; }
    // The App Group directory cannot be resolved or created.
    static QuotaHistoryStoreError missingLocalStorageContainer() {
        return {Kind::missingLocalStorageContainer, "The local storage container is unavailable."};
    }
    // What the shared store base throws without a directory: the history's own missing container.
    static QuotaHistoryStoreError missingAppGroupContainer(const std::string&) { return missingLocalStorageContainer(); }

private:
    using KindedError::KindedError;
};

// The time series of published snapshots in "quota-history.sqlite", LZFSE-compressed, one row per
// source and second. A value: copies share one connection; calls from any thread serialise on
// it, and the companion app may use the same file at the same time (WAL, 2 s busy timeout).
//
// Loads skip a row whose bytes do not decompress or decode: the rest of the timeline is worth
// more to a widget than a complete failure, and the row stays in the file untouched.
class QuotaHistoryStore : public SQLiteStore<QuotaHistoryStoreError> {
public:
    static constexpr std::string_view defaultHistoryFilename = "quota-history.sqlite";
    static constexpr std::string_view legacyHistoryFilename = "quota-history.json";
    static constexpr std::string_view migrationMarkerKey = "quota.historyStore.migratedFromICloud";

    explicit QuotaHistoryStore(QuotaSyncConfiguration configuration = QuotaSyncConfiguration::standard());

    // The database file in the App Group directory; none when there is no such directory.
    static std::optional<std::filesystem::path> databaseURL(const QuotaSyncConfiguration& configuration);
    // As databaseURL; throws missingLocalStorageContainer instead of none.
    std::filesystem::path historyURL() const;

    // Every snapshot, oldest first. Throws QuotaHistoryStoreError.
    QuotaHistoryTimeline loadTimeline() const;
    // The snapshots generated within the last `days` days of the clock. Throws.
    QuotaHistoryTimeline loadTimeline(double days) const;
    // loadTimeline(), or the empty timeline on any error.
    QuotaHistoryTimeline loadTimelineOrEmpty() const noexcept;
    // The newest snapshot that decodes, or none (also on any error).
    std::optional<QuotaSnapshot> latestSnapshot() const noexcept;

    // Writes one snapshot (replacing the row of the same source and second), removes rows of
    // every source older than `retentionDays`, and returns the whole timeline. Throws.
    QuotaHistoryTimeline append(const QuotaSnapshot& snapshot, double retentionDays) const;
    // append() without reading the timeline back, for publishers that do not need it. Throws.
    void record(const QuotaSnapshot& snapshot, double retentionDays) const;
    // Writes every snapshot of `timeline` (upserts by row id), in one transaction. Throws.
    void saveTimeline(const QuotaHistoryTimeline& timeline) const;
    // Deletes the rows of one source and returns what remains. Throws.
    QuotaHistoryTimeline removeSnapshots(std::string_view sourceID) const;
    // Deletes rows generated more than `days` days before the clock; returns how many. Throws.
    std::int64_t trimOlderThan(double days) const;
    // Deletes every row; returns how many. Throws.
    std::int64_t clear() const;
    // Checkpoints the write-ahead log (passive: never waits for the other process).
    void walCheckpoint() const noexcept;

private:
    template <class Operation>
    auto run(Operation&& operation) const;
    void insertAndTrim(sqlite::Connection& connection, const QuotaSnapshot& snapshot, double retentionDays) const;
};

}  // namespace gaugepoint
