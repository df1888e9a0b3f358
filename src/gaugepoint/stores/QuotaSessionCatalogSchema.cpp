#include "gaugepoint/stores/QuotaSessionCatalogSchema.hpp"

namespace gaugepoint {
namespace {

// Indexes on columns that catalogues written by earlier versions lack (session_messages.updated_at,
// session_descriptors.inserted_at) are created by the migration, once the columns exist.
constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS session_descriptors (\n"
    "    id TEXT NOT NULL,\n"
    "    source_id TEXT NOT NULL,\n"
    "    provider_id TEXT NOT NULL,\n"
    "    provider_name TEXT,\n"
    "    project_path TEXT,\n"
    "    title TEXT,\n"
    "    started_at REAL,\n"
    "    ended_at REAL,\n"
    "    message_count INTEGER DEFAULT 0,\n"
    "    prompt_count INTEGER DEFAULT 0,\n"
    "    total_tokens INTEGER DEFAULT 0,\n"
    "    sync_mode TEXT NOT NULL DEFAULT 'lite',\n"
    "    inserted_at REAL NOT NULL,\n"
    "    updated_at REAL NOT NULL,\n"
    "    descriptor_data BLOB NOT NULL,\n"
    "    descriptor_encoding TEXT NOT NULL DEFAULT 'plain',\n"
    "    PRIMARY KEY (source_id, id)\n"
    ");\n"
    "CREATE INDEX IF NOT EXISTS idx_sd_provider ON session_descriptors(provider_id);\n"
    "CREATE INDEX IF NOT EXISTS idx_sd_ended ON session_descriptors(ended_at DESC);\n"
    "CREATE INDEX IF NOT EXISTS idx_sd_updated ON session_descriptors(updated_at DESC);\n"
    "CREATE TABLE IF NOT EXISTS session_messages (\n"
    "    id INTEGER PRIMARY KEY AUTOINCREMENT,\n"
    "    session_id TEXT NOT NULL,\n"
    "    source_id TEXT NOT NULL,\n"
    "    seq INTEGER NOT NULL DEFAULT 0,\n"
    "    role TEXT NOT NULL,\n"
    "    text TEXT,\n"
    "    timestamp REAL,\n"
    "    model TEXT,\n"
    "    token_count INTEGER DEFAULT 0,\n"
    "    inserted_at REAL NOT NULL,\n"
    "    updated_at REAL NOT NULL,\n"
    "    UNIQUE (source_id, session_id, seq)\n"
    ");\n"
    "CREATE INDEX IF NOT EXISTS idx_sm_session ON session_messages(source_id, session_id, seq);\n"
    "CREATE INDEX IF NOT EXISTS idx_sm_inserted ON session_messages(inserted_at DESC);\n"
    "CREATE TABLE IF NOT EXISTS sync_watermarks (\n"
    "    device_key TEXT NOT NULL,\n"
    "    table_name TEXT NOT NULL,\n"
    "    last_sync_at REAL NOT NULL DEFAULT 0,\n"
    "    last_row_id INTEGER DEFAULT 0,\n"
    "    PRIMARY KEY (device_key, table_name)\n"
    ");\n"
    "CREATE TEMP TABLE IF NOT EXISTS incoming_descriptor_ids (id TEXT PRIMARY KEY);";

// ---- schema migration of catalogues written by earlier versions ----

void migrateDescriptors(sqlite::Connection& connection) {
    const auto columns = sqlite::tableColumns(connection, "session_descriptors", "inspect table info for session_descriptors");
    if (!columns.contains("descriptor_data")) {
        connection.exec("ALTER TABLE session_descriptors ADD COLUMN descriptor_data BLOB", "add descriptor_data column");
    }
    if (!columns.contains("descriptor_encoding")) {
        connection.exec("ALTER TABLE session_descriptors ADD COLUMN descriptor_encoding TEXT DEFAULT 'plain'",
                        "add descriptor_encoding column");
    }
    if (columns.contains("descriptor_json")) {
        connection.exec("UPDATE session_descriptors\nSET descriptor_data = CAST(descriptor_json AS BLOB),\n"
                        "    descriptor_encoding = 'plain'\nWHERE descriptor_data IS NULL",
                        "migrate descriptor_json to descriptor_data");
    }
}

void migrateMessages(sqlite::Connection& connection) {
    const auto columns = sqlite::tableColumns(connection, "session_messages", "inspect table info for session_messages");
    if (!columns.contains("updated_at")) {
        connection.exec("ALTER TABLE session_messages ADD COLUMN updated_at REAL NOT NULL DEFAULT 0",
                        "add session_messages updated_at column");
        connection.exec("UPDATE session_messages SET updated_at = inserted_at WHERE updated_at IS NULL OR updated_at <= 0",
                        "backfill session_messages updated_at");
    }
    connection.exec("CREATE INDEX IF NOT EXISTS idx_sm_updated ON session_messages(updated_at DESC)", "ensure idx_sm_updated");
}

void migrateInsertedAt(sqlite::Connection& connection) {
    const auto columns = sqlite::tableColumns(connection, "session_descriptors", "inspect table info for session_descriptors");
    if (!columns.contains("inserted_at")) {
        connection.exec("ALTER TABLE session_descriptors ADD COLUMN inserted_at REAL NOT NULL DEFAULT 0",
                        "add session_descriptors inserted_at column");
        connection.exec("UPDATE session_descriptors\nSET inserted_at = CASE\n"
                        "    WHEN updated_at > 0 THEN updated_at\n    WHEN ended_at > 0 THEN ended_at\n"
                        "    WHEN started_at > 0 THEN started_at\n    ELSE CAST(strftime('%s','now') AS REAL)\n"
                        "END\nWHERE inserted_at IS NULL OR inserted_at <= 0",
                        "backfill session_descriptors inserted_at");
    }
    connection.exec("CREATE INDEX IF NOT EXISTS idx_sd_inserted ON session_descriptors(inserted_at DESC)",
                    "ensure idx_sd_inserted");
}

// Beyond the catalogue's own indexes, three that keep its reads from sorting whole tables at
// 100,000 sessions and millions of messages: one source's sessions in list order (every page
// of `sessions list --source` would otherwise sort all of them), and updated_at ascending for
// the incremental exports, whose (updated_at, rowid) order a descending index can only serve
// with a sort of every row sharing one updated_at.
void ensureReadIndexes(sqlite::Connection& connection) {
    connection.exec("CREATE INDEX IF NOT EXISTS idx_sd_source_ended\n"
                    "ON session_descriptors(source_id, ended_at DESC, updated_at DESC)",
                    "ensure idx_sd_source_ended");
    connection.exec("CREATE INDEX IF NOT EXISTS idx_sd_export ON session_descriptors(updated_at ASC)", "ensure idx_sd_export");
    connection.exec("CREATE INDEX IF NOT EXISTS idx_sm_export ON session_messages(updated_at ASC)", "ensure idx_sm_export");
}

void migrate(sqlite::Connection& connection) {
    migrateDescriptors(connection);
    migrateMessages(connection);
    migrateInsertedAt(connection);
    ensureReadIndexes(connection);
}

}  // namespace

const SQLiteStoreSetup& catalogStoreSetup() {
    static const SQLiteStoreSetup setup{"Unable to open catalog database at ", kSchema, [](sqlite::Connection& c) {
                                            c.exec("PRAGMA cache_size = -4000", "set cache size");
                                            migrate(c);
                                        }};
    return setup;
}

}  // namespace gaugepoint
