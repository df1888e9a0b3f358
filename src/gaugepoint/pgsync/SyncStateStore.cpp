#include "gaugepoint/pgsync/SyncStateStore.hpp"

namespace gaugepoint {
namespace {

constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS sync_servers (\n"
    "    server_key TEXT PRIMARY KEY,\n"
    "    description TEXT NOT NULL,\n"
    "    pulled_through INTEGER NOT NULL,\n"
    "    last_push_at REAL,\n"
    "    last_pull_at REAL,\n"
    "    pushed_epoch TEXT NOT NULL,\n"
    "    pushed_snapshot TEXT NOT NULL,\n"
    "    records_pushed INTEGER NOT NULL,\n"
    "    records_pulled INTEGER NOT NULL,\n"
    "    skipped_foreign_epoch INTEGER NOT NULL\n"
    ");\n"
    "CREATE TABLE IF NOT EXISTS sync_record_tags (\n"
    "    server_key TEXT NOT NULL,\n"
    "    record_name TEXT NOT NULL,\n"
    "    change_tag TEXT NOT NULL,\n"
    "    PRIMARY KEY (server_key, record_name)\n"
    ") WITHOUT ROWID;\n"
    "CREATE TABLE IF NOT EXISTS sync_known_envelopes (\n"
    "    server_key TEXT NOT NULL,\n"
    "    envelope_id TEXT NOT NULL,\n"
    "    created_at REAL NOT NULL,\n"
    "    PRIMARY KEY (server_key, envelope_id)\n"
    ") WITHOUT ROWID;";

constexpr const char* kServerColumns =
    "server_key, description, pulled_through, last_push_at, last_pull_at, pushed_epoch, pushed_snapshot, "
    "records_pushed, records_pulled, skipped_foreign_epoch";

SyncServerState serverFrom(const sqlite::Statement& row) {
    SyncServerState s;
    s.key = std::string(row.text(0).value_or(""));
    s.description = std::string(row.text(1).value_or(""));
    s.pulledThrough = row.integer(2);
    s.lastPushAt = sqlite::optionalDate(row, 3);
    s.lastPullAt = sqlite::optionalDate(row, 4);
    s.pushedEpoch = std::string(row.text(5).value_or(""));
    s.pushedSnapshotFingerprint = std::string(row.text(6).value_or(""));
    s.recordsPushed = row.integer(7);
    s.recordsPulled = row.integer(8);
    s.skippedForeignEpoch = row.integer(9);
    return s;
}

}  // namespace

SyncStateStore::SyncStateStore(QuotaSyncConfiguration configuration)
    : SQLiteStore(std::move(configuration), std::nullopt, defaultFilename) {}

template <class Operation>
auto SyncStateStore::runState(Operation&& operation) const {
    static const SQLiteStoreSetup setup{"Unable to open sync state database at ", kSchema, {}};
    return run(setup, operation);
}

SyncServerState SyncStateStore::server(std::string_view key) const {
    return runState([&](sqlite::Connection& c) {
        const std::string sql = std::string("SELECT ") + kServerColumns + " FROM sync_servers WHERE server_key = ?";
        sqlite::Statement select{c, sql.c_str(), "prepare sync server", "execute sync server"};
        select.bind(1, key);
        if (select.step()) return serverFrom(select);
        SyncServerState fresh;
        fresh.key = std::string(key);
        return fresh;
    });
}

std::unordered_map<std::string, std::string> SyncStateStore::tags(std::string_view key,
                                                                   const std::vector<std::string>& names) const {
    return runState([&](sqlite::Connection& c) {
        sqlite::Statement select{c, "SELECT change_tag FROM sync_record_tags WHERE server_key = ? AND record_name = ?",
                                 "prepare sync tags", "execute sync tags"};
        std::unordered_map<std::string, std::string> found;
        for (const auto& name : names) {
            select.reset();
            select.bind(1, key).bind(2, name);
            if (select.step()) found[name] = std::string(select.text(0).value_or(""));
        }
        return found;
    });
}

std::map<std::string, Date> SyncStateStore::knownEnvelopes(std::string_view key) const {
    return runState([&](sqlite::Connection& c) {
        sqlite::Statement select{c, "SELECT envelope_id, created_at FROM sync_known_envelopes WHERE server_key = ?",
                                 "prepare sync envelopes", "execute sync envelopes"};
        select.bind(1, key);
        std::map<std::string, Date> known;
        while (select.step()) known[std::string(select.text(0).value_or(""))] = dateFromSeconds(select.real(1));
        return known;
    });
}

void SyncStateStore::save(const SyncServerState& state, const Change& change) const {
    runState([&](sqlite::Connection& c) {
        sqlite::Transaction transaction{c, "save sync state"};
        sqlite::Statement server{c,
                                 "INSERT OR REPLACE INTO sync_servers (server_key, description, pulled_through, "
                                 "last_push_at, last_pull_at, pushed_epoch, pushed_snapshot, records_pushed, "
                                 "records_pulled, skipped_foreign_epoch) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)",
                                 "prepare sync state", "execute sync state"};
        server.bind(1, state.key).bind(2, state.description).bind(3, state.pulledThrough);
        sqlite::bindDate(server, 4, state.lastPushAt);
        sqlite::bindDate(server, 5, state.lastPullAt);
        server.bind(6, state.pushedEpoch).bind(7, state.pushedSnapshotFingerprint).bind(8, state.recordsPushed);
        server.bind(9, state.recordsPulled).bind(10, state.skippedForeignEpoch).run();
        if (change.forgetEnvelopes) {
            sqlite::Statement forget{c, "DELETE FROM sync_known_envelopes WHERE server_key = ?", "prepare sync envelopes",
                                     "execute sync envelopes"};
            forget.bind(1, state.key).run();
        }
        sqlite::Statement tag{c, "INSERT OR REPLACE INTO sync_record_tags (server_key, record_name, change_tag) VALUES (?, ?, ?)",
                              "prepare sync tags", "execute sync tags"};
        for (const auto& [name, value] : change.tags) {
            tag.reset();
            tag.bind(1, state.key).bind(2, name).bind(3, value).run();
        }
        sqlite::Statement known{c,
                                "INSERT OR REPLACE INTO sync_known_envelopes (server_key, envelope_id, created_at) "
                                "VALUES (?, ?, ?)",
                                "prepare sync envelopes", "execute sync envelopes"};
        for (const auto& [id, createdAt] : change.envelopesKnown) {
            known.reset();
            known.bind(1, state.key).bind(2, id).bind(3, secondsSince1970(createdAt)).run();
        }
        sqlite::Statement gone{c, "DELETE FROM sync_known_envelopes WHERE server_key = ? AND envelope_id = ?",
                               "prepare sync envelopes", "execute sync envelopes"};
        for (const auto& id : change.envelopesGone) {
            gone.reset();
            gone.bind(1, state.key).bind(2, id).run();
        }
        transaction.commit();
    });
}

}  // namespace gaugepoint
