#include "gaugepoint/stores/QuotaHistoryStore.hpp"

#include "gaugepoint/platform/Files.hpp"
#include "gaugepoint/platform/InputFile.hpp"
#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/stores/SQLiteStore.hpp"
#include "gaugepoint/stores/SnapshotBlob.hpp"

namespace gaugepoint {
namespace {

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS snapshot_history (\n"
    "    id TEXT PRIMARY KEY,\n"
    "    source_id TEXT NOT NULL DEFAULT '',\n"
    "    source_name TEXT,\n"
    "    generated_at REAL NOT NULL,\n"
    "    snapshot_json BLOB NOT NULL,\n"
    "    snapshot_encoding TEXT NOT NULL DEFAULT 'plain'\n"
    ");\n"
    "CREATE INDEX IF NOT EXISTS idx_sh_generated_at ON snapshot_history(generated_at DESC);\n"
    "CREATE INDEX IF NOT EXISTS idx_sh_source_id ON snapshot_history(source_id);";

constexpr const char* kInsert =
    "INSERT OR REPLACE INTO snapshot_history (\n    id,\n    source_id,\n    source_name,\n    generated_at,\n"
    "    snapshot_json,\n    snapshot_encoding\n) VALUES (?, ?, ?, ?, ?, ?)";
constexpr const char* kRetention = "DELETE FROM snapshot_history WHERE generated_at < ?";
constexpr const char* kRemoveBySource = "DELETE FROM snapshot_history WHERE source_id = ?";
constexpr const char* kSelectAll =
    "SELECT source_id, source_name, generated_at, snapshot_json, snapshot_encoding FROM snapshot_history "
    "ORDER BY generated_at ASC";
constexpr const char* kSelectSince =
    "SELECT source_id, source_name, generated_at, snapshot_json, snapshot_encoding FROM snapshot_history "
    "WHERE generated_at >= ? ORDER BY generated_at ASC";
constexpr const char* kSelectNewestFirst =
    "SELECT snapshot_json, snapshot_encoding FROM snapshot_history ORDER BY generated_at DESC";
constexpr const char* kClear = "DELETE FROM snapshot_history";
constexpr const char* kTableInfo = "PRAGMA table_info(snapshot_history);";
constexpr const char* kAddEncoding = "ALTER TABLE snapshot_history ADD COLUMN snapshot_encoding TEXT DEFAULT 'plain'";

constexpr double kSecondsPerDay = 24 * 60 * 60;

// The moment `days` (fractions allowed) before now on the configuration's clock.
Date daysAgo(const QuotaSyncConfiguration& configuration, double days) {
    return configuration.clock.now() - std::chrono::duration<double>(days * kSecondsPerDay);
}

// Rows written before snapshots were compressed have no encoding column; they read as plain.
void addEncodingColumnWhenMissing(sqlite::Connection& connection) {
    bool found = false;
    {
        sqlite::Statement info{connection, kTableInfo, "prepare snapshot_history pragma",
                               "prepare snapshot_history pragma"};
        while (info.step()) {
            if (info.text(1) == "snapshot_encoding") found = true;
        }
    }
    if (!found) connection.exec(kAddEncoding, "alter snapshot_history add snapshot_encoding");
}

// Binds one snapshot to the insert statement: id = source + "_" + its second in UTC. A snapshot
// JSON cannot hold (a non-finite number) fails the statement with the encoder's reason.
void bindRow(sqlite::Statement& insert, const QuotaSnapshot& snapshot) {
    SnapshotBlob blob;
    try {
        blob = encodeSnapshotBlob(snapshot);
    } catch (const json::EncodingError& error) {
        insert.fail(error.what());
    }
    const std::string sourceID = snapshot.source ? snapshot.source->sourceID : "unknown";
    insert.bind(1, sourceID + "_" + formatInternetDateTime(snapshot.generatedAt))
        .bind(2, std::string_view(sourceID))
        .bind(3, snapshot.source ? std::optional(snapshot.source->sourceName) : std::nullopt)
        .bind(4, secondsSince1970(snapshot.generatedAt))
        .bindBlob(5, blob.bytes)
        .bind(6, json::rawValue(blob.encoding));
}

void insertAll(sqlite::Connection& connection, const std::vector<QuotaSnapshot>& snapshots, std::string_view operation) {
    sqlite::Transaction transaction{connection, operation};
    sqlite::CachedStatement insert{connection, kInsert, operation};
    for (const auto& snapshot : snapshots) {
        insert.reset();
        bindRow(insert, snapshot);
        insert.run();
    }
    transaction.commit();
}

QuotaHistoryTimeline readTimeline(sqlite::Statement& select) {
    QuotaHistoryTimeline timeline;
    while (select.step()) {
        if (auto snapshot = decodeSnapshotBlob(select.blob(3), select.text(4))) {
            timeline.snapshots.push_back(std::move(*snapshot));
        }
    }
    return timeline;
}

QuotaHistoryTimeline selectAll(sqlite::Connection& connection) {
    sqlite::CachedStatement select{connection, kSelectAll, "prepare loadTimeline", "execute loadTimeline"};
    return readTimeline(select);
}

std::int64_t deleteOlderThan(sqlite::Connection& connection, Date cutoff, std::string_view operation) {
    return sqlite::trimRows(connection, kRetention, secondsSince1970(cutoff), operation);
}

}  // namespace

QuotaHistoryStore::QuotaHistoryStore(QuotaSyncConfiguration configuration)
    : SQLiteStore(std::move(configuration), std::nullopt, defaultHistoryFilename) {}

std::optional<std::filesystem::path> QuotaHistoryStore::databaseURL(const QuotaSyncConfiguration& configuration) {
    const auto directory = configuration.resolvedAppGroupDirectory();
    if (!directory) return std::nullopt;
    return *directory / defaultHistoryFilename;
}

std::filesystem::path QuotaHistoryStore::historyURL() const {
    return SQLiteStore::databaseURL();
}

// Opens on first use (bringing the earlier cloud document over once), runs `operation`, and
// reports SQLite failures as this store's error.
template <class Operation>
auto QuotaHistoryStore::run(Operation&& operation) const {
    static constexpr LegacyMigration migration{migrationMarkerKey};
    const std::filesystem::path file = historyURL();
    std::optional<QuotaHistoryTimeline> legacy;
    const auto readLegacy = [&] {
        // The earlier document, in the ubiquity directory's Documents folder or at its top; one
        // that does not decode is left where it is.
        const auto found = LegacyMigration::legacyFile(configuration_, legacyHistoryFilename);
        if (!found) return false;
        try {
            legacy = json::decode<QuotaHistoryTimeline>(readInputFile(*found, InputLimit::document("a history document")));
        } catch (const Error&) {
            return false;
        }
        return true;
    };
    const auto beforeOpen = [&](SQLiteConnectionHolder& holder) { migration.beforeOpen(holder, configuration_, file, readLegacy); };
    const SQLiteStoreSetup setup{"Unable to open history database at ", kSchema, [&](sqlite::Connection& connection) {
                                     addEncodingColumnWhenMissing(connection);
                                     if (!legacy) return;
                                     insertAll(connection, legacy->snapshots, "legacy import");
                                     migration.finish(*connectionHolder_, configuration_);
                                 }};
    return SQLiteStore::run(setup, operation, beforeOpen);
}

QuotaHistoryTimeline QuotaHistoryStore::loadTimeline() const { return run(selectAll); }

QuotaHistoryTimeline QuotaHistoryStore::loadTimeline(double days) const {
    const Date cutoff = daysAgo(configuration_, days);
    return run([&](sqlite::Connection& connection) {
        sqlite::CachedStatement select{connection, kSelectSince, "prepare loadTimeline(days)", "execute loadTimeline(days)"};
        select.bind(1, secondsSince1970(cutoff));
        return readTimeline(select);
    });
}

QuotaHistoryTimeline QuotaHistoryStore::loadTimelineOrEmpty() const noexcept {
    try {
        return loadTimeline();
    } catch (...) {
        return QuotaHistoryTimeline::empty();
    }
}

std::optional<QuotaSnapshot> QuotaHistoryStore::latestSnapshot() const noexcept {
    try {
        return run([](sqlite::Connection& connection) -> std::optional<QuotaSnapshot> {
            sqlite::CachedStatement select{connection, kSelectNewestFirst, "prepare latestSnapshot", "execute latestSnapshot"};
            while (select.step()) {
                if (auto snapshot = decodeSnapshotBlob(select.blob(0), select.text(1))) return snapshot;
            }
            return std::nullopt;
        });
    } catch (...) {
        return std::nullopt;
    }
}

void QuotaHistoryStore::insertAndTrim(sqlite::Connection& connection, const QuotaSnapshot& snapshot,
                                      double retentionDays) const {
    const Date cutoff = daysAgo(configuration_, retentionDays);
    sqlite::CachedStatement insert{connection, kInsert, "prepare append", "execute append"};
    bindRow(insert, snapshot);
    insert.run();
    deleteOlderThan(connection, cutoff, "retention trim");  // part of the write: fails it with its own label
}

void QuotaHistoryStore::record(const QuotaSnapshot& snapshot, double retentionDays) const {
    run([&](sqlite::Connection& connection) { insertAndTrim(connection, snapshot, retentionDays); });
}

QuotaHistoryTimeline QuotaHistoryStore::append(const QuotaSnapshot& snapshot, double retentionDays) const {
    // One lock hold: the timeline returned is the one this append left, whatever other threads do.
    return run([&](sqlite::Connection& connection) {
        insertAndTrim(connection, snapshot, retentionDays);
        return selectAll(connection);
    });
}

void QuotaHistoryStore::saveTimeline(const QuotaHistoryTimeline& timeline) const {
    run([&](sqlite::Connection& connection) { insertAll(connection, timeline.snapshots, "saveTimeline"); });
}

QuotaHistoryTimeline QuotaHistoryStore::removeSnapshots(std::string_view sourceID) const {
    return run([&](sqlite::Connection& connection) {
        sqlite::CachedStatement remove{connection, kRemoveBySource, "prepare removeSnapshots", "execute removeSnapshots"};
        remove.bind(1, sourceID).run();
        return selectAll(connection);
    });
}

std::int64_t QuotaHistoryStore::trimOlderThan(double days) const {
    const Date cutoff = daysAgo(configuration_, days);
    return trimming(Trim::failsTheCall, [&] {
        return run([&](sqlite::Connection& connection) { return deleteOlderThan(connection, cutoff, "trimOlderThan"); });
    });
}

std::int64_t QuotaHistoryStore::clear() const {
    return run([](sqlite::Connection& connection) {
        sqlite::CachedStatement clear{connection, kClear, "prepare clear", "execute clear"};
        clear.run();
        return connection.changes();
    });
}

void QuotaHistoryStore::walCheckpoint() const noexcept {
    try {
        run([](sqlite::Connection& connection) { connection.checkpointQuietly(SQLiteConnectionHolder::busyTimeout()); });
    } catch (...) {
    }
}

}  // namespace gaugepoint
