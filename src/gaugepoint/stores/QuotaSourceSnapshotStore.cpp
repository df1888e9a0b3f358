#include "gaugepoint/stores/QuotaSourceSnapshotStore.hpp"

#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/stores/SnapshotBlob.hpp"

namespace gaugepoint {
namespace {

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS source_snapshots (\n"
    "    id TEXT PRIMARY KEY,\n"
    "    source_id TEXT,\n"
    "    source_name TEXT NOT NULL,\n"
    "    host_name TEXT,\n"
    "    platform_label TEXT,\n"
    "    pairing_token TEXT,\n"
    "    channel TEXT NOT NULL,\n"
    "    received_at REAL NOT NULL,\n"
    "    snapshot_data BLOB NOT NULL,\n"
    "    snapshot_encoding TEXT NOT NULL DEFAULT 'plain'\n"
    ");\n"
    "CREATE INDEX IF NOT EXISTS idx_ss_source ON source_snapshots(source_id);\n"
    "CREATE INDEX IF NOT EXISTS idx_ss_received ON source_snapshots(received_at DESC);";

constexpr const char* kColumns =
    "id, source_id, source_name, host_name, platform_label, pairing_token, channel, received_at, snapshot_data, "
    "snapshot_encoding";
const std::string kSelectAll = std::string("SELECT ") + kColumns + " FROM source_snapshots ORDER BY received_at DESC";
const std::string kSelectOne = std::string("SELECT ") + kColumns + " FROM source_snapshots WHERE id = ? LIMIT 1";

constexpr const char* kInsert =
    "INSERT OR REPLACE INTO source_snapshots (\n    id,\n    source_id,\n    source_name,\n    host_name,\n"
    "    platform_label,\n    pairing_token,\n    channel,\n    received_at,\n    snapshot_data,\n"
    "    snapshot_encoding\n) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";
constexpr const char* kRemoveByID = "DELETE FROM source_snapshots WHERE id = ?";
constexpr const char* kRemoveBySource = "DELETE FROM source_snapshots WHERE source_id = ?";
constexpr const char* kRemoveByToken = "DELETE FROM source_snapshots WHERE pairing_token = ?";
constexpr const char* kClear = "DELETE FROM source_snapshots";
constexpr const char* kTrim =
    "DELETE FROM source_snapshots\nWHERE received_at < ?\n  AND id NOT IN (\n    SELECT id FROM (\n"
    "      SELECT id, ROW_NUMBER() OVER (\n        PARTITION BY COALESCE(source_id, pairing_token, id)\n"
    "        ORDER BY received_at DESC\n      ) AS rn\n      FROM source_snapshots\n    ) WHERE rn = 1\n  )";

// A row as a record; none when its snapshot or channel cannot be read.
std::optional<QuotaSourceSnapshotRecord> recordFromRow(const sqlite::Statement& row) {
    auto snapshot = decodeSnapshotBlob(row.blob(8), row.text(9));
    const auto channel = row.text(6);
    if (!snapshot || !channel || (*channel != "kvs" && *channel != "pairing")) return std::nullopt;
    QuotaSourceSnapshotRecord record;
    record.id = std::string(row.text(0).value_or(""));
    record.sourceID = sqlite::optionalText(row, 1);
    record.sourceName = std::string(row.text(2).value_or(""));
    record.hostName = sqlite::optionalText(row, 3);
    record.platformLabel = sqlite::optionalText(row, 4);
    record.pairingToken = sqlite::optionalText(row, 5);
    record.channel = *channel == "pairing" ? QuotaSourceSyncChannel::pairing : QuotaSourceSyncChannel::kvs;
    record.receivedAt = dateFromSeconds(row.real(7));
    record.snapshot = std::move(*snapshot);
    return record;
}

void bindRecord(sqlite::Statement& insert, const QuotaSourceSnapshotRecord& record) {
    SnapshotBlob blob;
    try {
        blob = encodeSnapshotBlob(record.snapshot);
    } catch (const json::EncodingError&) {
        throw QuotaSourceSnapshotStoreError::encodeFailure("Unable to serialize snapshot");
    }
    insert.bind(1, std::string_view(record.id))
        .bind(2, record.sourceID)
        .bind(3, std::string_view(record.sourceName))
        .bind(4, record.hostName)
        .bind(5, record.platformLabel)
        .bind(6, record.pairingToken)
        .bind(7, json::rawValue(record.channel))
        .bind(8, secondsSince1970(record.receivedAt))
        .bindBlob(9, blob.bytes)
        .bind(10, json::rawValue(blob.encoding));
}

std::int64_t deleteWhere(sqlite::Connection& connection, const char* sql, std::string_view value, std::string_view name) {
    sqlite::CachedStatement remove{connection, sql, name};
    remove.bind(1, value).run();
    return connection.changes();
}

}  // namespace

QuotaSourceSnapshotStore::QuotaSourceSnapshotStore(QuotaSyncConfiguration configuration,
                                                   const std::optional<std::filesystem::path>& containerURLOverride)
    : SQLiteStore(std::move(configuration), containerURLOverride, defaultFilename) {}

template <class Operation>
auto QuotaSourceSnapshotStore::runSources(Operation&& operation) const {
    static const SQLiteStoreSetup setup{"Unable to open source snapshot database at ", kSchema, {}};
    return run(setup, operation);
}

QuotaSourceSnapshotRegistry QuotaSourceSnapshotStore::load() const noexcept {
    try {
        return runSources([](sqlite::Connection& connection) {
            sqlite::CachedStatement select{connection, kSelectAll.c_str(), "prepare load", "execute load"};
            QuotaSourceSnapshotRegistry registry;
            while (select.step()) {
                if (auto record = recordFromRow(select)) registry.entries.push_back(std::move(*record));
            }
            return registry;
        });
    } catch (...) {
        return {};
    }
}

std::optional<QuotaSourceSnapshotRecord> QuotaSourceSnapshotStore::loadRecord(std::string_view id) const {
    return runSources([&](sqlite::Connection& connection) -> std::optional<QuotaSourceSnapshotRecord> {
        sqlite::CachedStatement select{connection, kSelectOne.c_str(), "prepare loadRecord", "execute loadRecord"};
        select.bind(1, id);
        if (!select.step()) return std::nullopt;
        return recordFromRow(select);
    });
}

QuotaSourceSnapshotRecord QuotaSourceSnapshotStore::recordFor(const QuotaSnapshot& snapshot,
                                                              const std::optional<std::string>& pairingToken,
                                                              QuotaSourceSyncChannel channel) const {
    QuotaSourceSnapshotRecord record;
    if (snapshot.source) {
        record.id = snapshot.source->sourceID;
        record.sourceID = snapshot.source->sourceID;
        record.sourceName = snapshot.source->sourceName;
        record.hostName = snapshot.source->hostName;
        record.platformLabel = snapshot.source->platformLabel;
    } else {
        record.id = pairingToken ? *pairingToken : std::string(json::rawValue(channel));
        record.sourceName = "Unknown Source";
    }
    record.pairingToken = pairingToken;
    record.channel = channel;
    record.snapshot = snapshot;
    record.receivedAt = configuration_.clock.now();
    return record;
}

QuotaSourceSnapshotRecord QuotaSourceSnapshotStore::upsert(const QuotaSnapshot& snapshot,
                                                           const std::optional<std::string>& pairingToken,
                                                           QuotaSourceSyncChannel channel) const {
    QuotaSourceSnapshotRecord record = recordFor(snapshot, pairingToken, channel);
    runSources([&](sqlite::Connection& connection) {
        sqlite::CachedStatement insert{connection, kInsert, "prepare upsert", "execute upsert"};
        bindRecord(insert, record);
        insert.run();
    });
    return record;
}

std::optional<QuotaSourceSnapshotRecord> QuotaSourceSnapshotStore::update(std::string_view id,
                                                                          QuotaSourceSyncChannel channel,
                                                                          const SnapshotChange& change) const {
    return runSources([&](sqlite::Connection& connection) -> std::optional<QuotaSourceSnapshotRecord> {
        sqlite::Transaction transaction{connection, "update"};
        std::optional<QuotaSnapshot> stored;
        {
            sqlite::CachedStatement select{connection, kSelectOne.c_str(), "prepare update", "execute update"};
            select.bind(1, id);
            if (select.step()) {
                if (auto record = recordFromRow(select)) stored = std::move(record->snapshot);
            }
        }
        auto changed = change(stored);
        if (!changed) return std::nullopt;
        QuotaSourceSnapshotRecord record = recordFor(*changed, std::nullopt, channel);
        sqlite::CachedStatement insert{connection, kInsert, "prepare update", "execute update"};
        bindRecord(insert, record);
        insert.run();
        transaction.commit();
        return record;
    });
}

void QuotaSourceSnapshotStore::save(const QuotaSourceSnapshotRegistry& registry) const {
    runSources([&](sqlite::Connection& connection) {
        sqlite::Transaction transaction{connection, "save"};
        connection.exec(kClear, "clear for save");
        sqlite::CachedStatement insert{connection, kInsert, "prepare save", "execute save"};
        for (const auto& record : registry.entries) {
            insert.reset();
            bindRecord(insert, record);
            insert.run();
        }
        transaction.commit();
    });
}

std::int64_t QuotaSourceSnapshotStore::remove(std::string_view id) const {
    return runSources([&](sqlite::Connection& c) { return deleteWhere(c, kRemoveByID, id, "remove by id"); });
}

std::int64_t QuotaSourceSnapshotStore::removeRecordsWithSourceID(std::string_view sourceID) const {
    return runSources([&](sqlite::Connection& c) { return deleteWhere(c, kRemoveBySource, sourceID, "removeRecords(sourceID:)"); });
}

std::int64_t QuotaSourceSnapshotStore::removeRecordsWithPairingToken(std::string_view pairingToken) const {
    return runSources([&](sqlite::Connection& c) {
        return deleteWhere(c, kRemoveByToken, pairingToken, "removeRecords(pairingToken:)");
    });
}

std::int64_t QuotaSourceSnapshotStore::clear() const {
    return runSources([](sqlite::Connection& connection) {
        connection.exec(kClear, "clear");
        return connection.changes();
    });
}

std::int64_t QuotaSourceSnapshotStore::trimOldEntries(double olderThanSeconds) const noexcept {
    const double cutoff = secondsSince1970(configuration_.clock.now() - std::chrono::duration<double>(olderThanSeconds));
    // Run after receiving snapshots: a source's last row survives anyway, and a failed trim must
    // not undo a receipt that already succeeded.
    return trimming(Trim::housekeeping, [&] {
        return runSources([&](sqlite::Connection& c) { return sqlite::trimRows(c, kTrim, cutoff, "trimOldEntries"); });
    });
}

void QuotaSourceSnapshotStore::walCheckpoint() const noexcept {
    try {
        runSources([](sqlite::Connection& connection) { connection.checkpointQuietly(SQLiteConnectionHolder::busyTimeout()); });
    } catch (...) {
    }
}

}  // namespace gaugepoint
