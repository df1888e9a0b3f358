#include "gaugepoint/stores/QuotaSessionFileRegistry.hpp"

#include <sys/stat.h>

#include <algorithm>

#include "gaugepoint/platform/Files.hpp"
#include "gaugepoint/platform/InputFile.hpp"
#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/stores/QuotaUsageEntryStore.hpp"
#include "gaugepoint/stores/SQLiteReadOnly.hpp"
#include "gaugepoint/stores/SQLiteStatementCache.hpp"

namespace gaugepoint {
namespace {

// The registry's columns, the one definition of the table (created, and the target of the
// migration below).
#define GAUGEPOINT_REGISTRY_COLUMNS \
    "    path TEXT NOT NULL,\n" \
    "    source_id TEXT NOT NULL DEFAULT '',\n" \
    "    provider_id TEXT NOT NULL,\n" \
    "    capture_mode TEXT NOT NULL,\n" \
    "    session_id TEXT,\n" \
    "    file_identifier TEXT,\n" \
    "    size INTEGER,\n" \
    "    modified_at REAL,\n" \
    "    last_offset INTEGER NOT NULL,\n" \
    "    parser_version INTEGER NOT NULL,\n" \
    "    updated_at REAL NOT NULL,\n" \
    "    PRIMARY KEY (path, source_id, provider_id, capture_mode)\n" \
    ")"

constexpr const char* kSchema = "CREATE TABLE IF NOT EXISTS session_file_registry (\n" GAUGEPOINT_REGISTRY_COLUMNS ";";

// The table as it was before entries were scoped by source is rebuilt in one transaction,
// keeping every row.
constexpr const char* kMigrateSourceScoped =
    "BEGIN IMMEDIATE;\n"
    "CREATE TABLE session_file_registry_v2 (\n" GAUGEPOINT_REGISTRY_COLUMNS ";\n"
    "INSERT INTO session_file_registry_v2 (\n"
    "    path, source_id, provider_id, capture_mode, session_id, file_identifier, size, modified_at,\n"
    "    last_offset, parser_version, updated_at\n"
    ")\n"
    "SELECT path, COALESCE(source_id, ''), provider_id, capture_mode, session_id, file_identifier, size, modified_at,\n"
    "       last_offset, parser_version, updated_at\n"
    "FROM session_file_registry;\n"
    "DROP TABLE session_file_registry;\n"
    "ALTER TABLE session_file_registry_v2 RENAME TO session_file_registry;\n"
    "COMMIT;";
#undef GAUGEPOINT_REGISTRY_COLUMNS

constexpr const char* kColumns =
    "SELECT path, source_id, session_id, file_identifier, size, modified_at, last_offset, provider_id, capture_mode, "
    "parser_version, updated_at\nFROM session_file_registry";
const std::string kLoad = std::string(kColumns) +
                          "\nWHERE path = ? AND provider_id = ? AND capture_mode = ?\n  AND (? IS NULL OR source_id = ?)\n"
                          "LIMIT 1";
// By the whole key: with the source left open (as load() allows) the planner walks the
// provider's index, every entry of the provider per lookup.
constexpr const char* kLastOffset =
    "SELECT last_offset FROM session_file_registry\nWHERE path = ? AND source_id = ? AND provider_id = ? AND capture_mode = ?";
constexpr const char* kPositions =
    "SELECT path, file_identifier, size, modified_at, last_offset, parser_version\nFROM session_file_registry\n"
    "WHERE provider_id = ? AND capture_mode = ? AND source_id = ?";
constexpr const char* kOrder = "\nORDER BY updated_at DESC, path ASC, capture_mode ASC";
constexpr const char* kUpsert =
    "INSERT INTO session_file_registry (\n    path,\n    source_id,\n    provider_id,\n    capture_mode,\n"
    "    session_id,\n    file_identifier,\n    size,\n    modified_at,\n    last_offset,\n    parser_version,\n"
    "    updated_at\n) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)\n"
    "ON CONFLICT(path, source_id, provider_id, capture_mode) DO UPDATE SET\n"
    "    session_id = excluded.session_id,\n    file_identifier = excluded.file_identifier,\n"
    "    size = excluded.size,\n    modified_at = excluded.modified_at,\n    last_offset = excluded.last_offset,\n"
    "    parser_version = excluded.parser_version,\n    updated_at = excluded.updated_at";
constexpr const char* kRemove =
    "DELETE FROM session_file_registry\nWHERE path = ? AND provider_id = ? AND capture_mode = ?\n"
    "  AND (? IS NULL OR source_id = ?)";
constexpr const char* kRemoveProvider = "DELETE FROM session_file_registry WHERE provider_id = ?";
constexpr const char* kClear = "DELETE FROM session_file_registry";

bool sourceInPrimaryKey(sqlite::Connection& connection) {
    const char* label = "inspect primary key for session_file_registry";
    sqlite::Statement info{connection, "PRAGMA table_info(session_file_registry)", label, label};
    while (info.step()) {
        if (info.text(1) == "source_id" && info.integer(5) > 0) return true;
    }
    return false;
}

// The secondary indexes, each made in its own step with its own label.
struct Index {
    const char* name;
    const char* sql;
    const char* label;
};
constexpr Index kIndexes[] = {
    {"idx_session_file_registry_provider_updated_at",
     "CREATE INDEX IF NOT EXISTS idx_session_file_registry_provider_updated_at\n"
     "ON session_file_registry(provider_id, updated_at DESC)",
     "ensure provider_updated_at index"},
    {"idx_session_file_registry_source_provider_updated_at",
     "CREATE INDEX IF NOT EXISTS idx_session_file_registry_source_provider_updated_at\n"
     "ON session_file_registry(source_id, provider_id, updated_at DESC)",
     "ensure source_provider_updated_at index"},
    {"idx_session_file_registry_file_identifier",
     "CREATE INDEX IF NOT EXISTS idx_session_file_registry_file_identifier\n"
     "ON session_file_registry(file_identifier)",
     "ensure file_identifier index"},
    {"idx_session_file_registry_session_id",
     "CREATE INDEX IF NOT EXISTS idx_session_file_registry_session_id\n"
     "ON session_file_registry(session_id)",
     "ensure session_id index"},
};

void migrate(sqlite::Connection& connection) {
    const auto columns =
        sqlite::tableColumns(connection, "session_file_registry", "inspect table info for session_file_registry");
    if (!columns.contains("session_id")) {
        connection.exec("ALTER TABLE session_file_registry ADD COLUMN session_id TEXT", "add column session_id");
    }
    if (!columns.contains("source_id")) {
        connection.exec("ALTER TABLE session_file_registry ADD COLUMN source_id TEXT NOT NULL DEFAULT ''",
                        "add column source_id");
    }
    if (!sourceInPrimaryKey(connection)) {
        try {
            connection.exec(kMigrateSourceScoped, "migrate source scoped registry");
        } catch (const sqlite::Failure&) {
            connection.rollbackQuietly();  // the script stops where it failed, inside its transaction
            throw;
        }
    }
    // A first import builds the indexes at its end (QuotaSessionFileRegistry::deferIndexes): one
    // missing while a writer holds the file is left to it, not waited for. One that is there
    // needs no lock.
    for (const auto& index : kIndexes) {
        connection.execUnlessLocked(index.sql, index.label, SQLiteConnectionHolder::busyTimeout());
    }
    // The log import's rows live in this file so that they commit with the entries that say
    // how far each file was read.
    QuotaUsageEntryStore::ensureSchema(connection);
}

std::optional<QuotaSessionContentCaptureMode> captureModeNamed(std::optional<std::string_view> name) {
    for (const auto mode : {QuotaSessionContentCaptureMode::metadataOnly, QuotaSessionContentCaptureMode::promptsOnly,
                            QuotaSessionContentCaptureMode::promptsAndAnswers,
                            QuotaSessionContentCaptureMode::fullTranscript}) {
        if (name == json::rawValue(mode)) return mode;
    }
    return std::nullopt;
}

// A row as an entry; none for a capture mode this version does not know.
std::optional<QuotaSessionFileRegistryEntry> entryFromRow(const sqlite::Statement& row) {
    const auto mode = captureModeNamed(row.text(8));
    if (!mode) return std::nullopt;
    QuotaSessionFileRegistryEntry entry;
    entry.path = std::string(row.text(0).value_or(""));
    entry.sourceID = std::string(row.text(1).value_or(""));
    entry.sessionID = sqlite::optionalText(row, 2);
    entry.fileIdentifier = sqlite::optionalText(row, 3);
    if (!row.isNull(4)) entry.size = row.integer(4);
    entry.modifiedAt = sqlite::optionalDate(row, 5);
    entry.lastOffset = row.integer(6);
    entry.providerID = std::string(row.text(7).value_or(""));
    entry.captureMode = *mode;
    entry.parserVersion = row.integer(9);
    entry.updatedAt = dateFromSeconds(row.real(10));
    return entry;
}

std::optional<std::string> asOptional(std::string_view text) { return std::string(text); }

}  // namespace

QuotaSessionFileRegistry::QuotaSessionFileRegistry(QuotaSyncConfiguration configuration,
                                                   const std::optional<std::filesystem::path>& containerURLOverride,
                                                   std::string_view databaseFilename)
    : SQLiteStore(std::move(configuration), containerURLOverride, databaseFilename) {}

template <class Operation>
auto QuotaSessionFileRegistry::runRegistry(Operation&& operation) const {
    static const SQLiteStoreSetup setup{"Unable to open registry database at ", kSchema, migrate};
    return run(setup, operation);
}

std::optional<QuotaSessionFileRegistryEntry> QuotaSessionFileRegistry::load(sqlite::Connection& connection,
                                                                           std::string_view path,
                                                                           const std::optional<std::string>& sourceID,
                                                                           std::string_view providerID,
                                                                           QuotaSessionContentCaptureMode captureMode) {
    sqlite::CachedStatement select{connection, kLoad.c_str(), "prepare load", "execute load"};
    select.bind(1, path).bind(2, providerID).bind(3, json::rawValue(captureMode)).bind(4, sourceID).bind(5, sourceID);
    if (!select.step()) return std::nullopt;
    return entryFromRow(select);
}

std::optional<std::int64_t> QuotaSessionFileRegistry::lastOffset(sqlite::StatementCache& statements,
                                                                 const QuotaSessionFileRegistryEntry& entry) {
    auto& select = statements.get(kLastOffset, "prepare last offset", "execute last offset");
    select.bind(1, entry.path).bind(2, entry.sourceID).bind(3, entry.providerID).bind(4, json::rawValue(entry.captureMode));
    std::optional<std::int64_t> offset;
    if (select.step()) offset = select.integer(0);
    select.reset();
    return offset;
}

std::optional<QuotaSessionFileRegistryEntry> QuotaSessionFileRegistry::load(std::string_view path,
                                                                           const std::optional<std::string>& sourceID,
                                                                           std::string_view providerID,
                                                                           QuotaSessionContentCaptureMode captureMode) const {
    return runRegistry([&](sqlite::Connection& c) { return load(c, path, sourceID, providerID, captureMode); });
}

std::vector<QuotaSessionFileRegistryEntry> QuotaSessionFileRegistry::list(
    const std::optional<std::string>& providerID, const std::optional<QuotaSessionContentCaptureMode>& captureMode,
    const std::optional<std::string>& sourceID) const {
    std::vector<std::pair<std::string_view, std::optional<std::string>>> filters;
    if (providerID) filters.emplace_back("provider_id = ?", providerID);
    if (captureMode) filters.emplace_back("capture_mode = ?", asOptional(json::rawValue(*captureMode)));
    if (sourceID) filters.emplace_back("source_id = ?", sourceID);
    std::string sql = kColumns;
    for (std::size_t i = 0; i < filters.size(); ++i) sql.append(i == 0 ? "\nWHERE " : " AND ").append(filters[i].first);
    sql += kOrder;
    return runRegistry([&](sqlite::Connection& connection) {
        sqlite::Statement select{connection, sql.c_str(), "prepare list", "execute list"};
        for (std::size_t i = 0; i < filters.size(); ++i) select.bind(int(i) + 1, filters[i].second);
        std::vector<QuotaSessionFileRegistryEntry> entries;
        while (select.step()) {
            if (auto entry = entryFromRow(select)) entries.push_back(std::move(*entry));
        }
        return entries;
    });
}

std::vector<QuotaSessionFileRegistryEntry> QuotaSessionFileRegistry::positions(std::string_view providerID,
                                                                              QuotaSessionContentCaptureMode captureMode,
                                                                              std::string_view sourceID) const {
    return runRegistry([&](sqlite::Connection& connection) {
        sqlite::CachedStatement select{connection, kPositions, "prepare positions", "execute positions"};
        select.bind(1, providerID).bind(2, json::rawValue(captureMode)).bind(3, sourceID);
        std::vector<QuotaSessionFileRegistryEntry> entries;
        while (select.step()) {
            QuotaSessionFileRegistryEntry& entry = entries.emplace_back();
            entry.path = std::string(select.text(0).value_or(""));
            entry.fileIdentifier = sqlite::optionalText(select, 1);
            if (!select.isNull(2)) entry.size = select.integer(2);
            entry.modifiedAt = sqlite::optionalDate(select, 3);
            entry.lastOffset = select.integer(4);
            entry.parserVersion = select.integer(5);
            entry.captureMode = captureMode;
        }
        return entries;
    });
}

void QuotaSessionFileRegistry::upsert(sqlite::Connection& connection, const QuotaSessionFileRegistryEntry& entry) {
    sqlite::StatementCache statements{connection};
    upsert(statements, entry);
}

void QuotaSessionFileRegistry::upsert(sqlite::StatementCache& statements, const QuotaSessionFileRegistryEntry& entry) {
    auto& upsert = statements.get(kUpsert, "prepare upsert", "execute upsert");
    upsert.bind(1, entry.path).bind(2, entry.sourceID).bind(3, entry.providerID).bind(4, json::rawValue(entry.captureMode));
    upsert.bind(5, entry.sessionID).bind(6, entry.fileIdentifier);
    if (entry.size) {
        upsert.bind(7, *entry.size);
    } else {
        upsert.bindNull(7);
    }
    sqlite::bindDate(upsert, 8, entry.modifiedAt);
    upsert.bind(9, entry.lastOffset).bind(10, entry.parserVersion).bind(11, secondsSince1970(entry.updatedAt)).run();
}

void QuotaSessionFileRegistry::upsert(const QuotaSessionFileRegistryEntry& entry) const {
    runRegistry([&](sqlite::Connection& connection) { upsert(connection, entry); });
}

std::int64_t QuotaSessionFileRegistry::remove(std::string_view path, const std::optional<std::string>& sourceID,
                                              std::string_view providerID,
                                              QuotaSessionContentCaptureMode captureMode) const {
    return runRegistry([&](sqlite::Connection& connection) {
        sqlite::CachedStatement remove{connection, kRemove, "prepare remove", "execute remove"};
        remove.bind(1, path).bind(2, providerID).bind(3, json::rawValue(captureMode)).bind(4, sourceID).bind(5, sourceID).run();
        return connection.changes();
    });
}

std::int64_t QuotaSessionFileRegistry::remove(std::string_view providerID) const {
    return runRegistry([&](sqlite::Connection& connection) {
        sqlite::CachedStatement remove{connection, kRemoveProvider, "prepare provider remove", "execute provider remove"};
        remove.bind(1, providerID).run();
        return connection.changes();
    });
}

std::int64_t QuotaSessionFileRegistry::clear() const {
    return runRegistry([](sqlite::Connection& connection) {
        sqlite::CachedStatement clear{connection, kClear, "prepare clear", "execute clear"};
        clear.run();
        return connection.changes();
    });
}

void QuotaSessionFileRegistry::runInTransaction(std::string_view label,
                                                const std::function<void(sqlite::Connection&)>& work) const {
    runRegistry([&](sqlite::Connection& connection) {
        sqlite::Transaction transaction{connection, label};
        work(connection);
        transaction.commit();
    });
}

void QuotaSessionFileRegistry::withConnection(const std::function<void(sqlite::Connection&)>& work) const {
    runRegistry([&](sqlite::Connection& connection) { work(connection); });
}

void QuotaSessionFileRegistry::withReadConnection(const std::function<void(sqlite::Connection&)>& work) const {
    try {
        const sqlite::ReadOnlyConnection database{databaseURL(), SQLiteConnectionHolder::busyTimeout()};
        auto connection = database.connection();
        work(connection);
    } catch (const sqlite::Failure& failure) {
        throw QuotaSessionFileRegistryError::sqliteFailure(failure.what());
    }
}

void QuotaSessionFileRegistry::setMemoryMapLimit(std::int64_t bytes) const {
    const std::string sql = "PRAGMA mmap_size=" + std::to_string(bytes);
    runRegistry([&](sqlite::Connection& connection) { connection.exec(sql.c_str(), "set mmap size"); });
}

void QuotaSessionFileRegistry::walCheckpoint() const noexcept {
    try {
        runRegistry([](sqlite::Connection& connection) { connection.checkpointQuietly(SQLiteConnectionHolder::busyTimeout()); });
    } catch (...) {
    }
}

void QuotaSessionFileRegistry::deferIndexes(sqlite::Connection& connection) {
    for (const auto& index : kIndexes) {
        connection.exec(("DROP INDEX IF EXISTS " + std::string(index.name)).c_str(), "defer registry indexes");
    }
}

void QuotaSessionFileRegistry::buildIndexes() const {
    runInTransaction("build registry indexes", [](sqlite::Connection& connection) {
        for (const auto& index : kIndexes) connection.exec(index.sql, index.label);
    });
}

std::optional<std::string> QuotaSessionFileRegistry::fileIdentifier(const std::filesystem::path& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return std::nullopt;
    return std::to_string(std::uint64_t(info.st_dev)) + ":" + std::to_string(std::uint64_t(info.st_ino));
}

// ---- checkpoints ----

QuotaSessionImportStateStore::QuotaSessionImportStateStore(QuotaSyncConfiguration configuration,
                                                           std::optional<std::filesystem::path> containerURLOverride)
    : configuration_(std::move(configuration)), containerURLOverride_(std::move(containerURLOverride)) {}

std::filesystem::path QuotaSessionImportStateStore::documentURL() const {
    std::optional<std::filesystem::path> directory = containerURLOverride_;
    if (directory) {
        std::error_code ignored;
        std::filesystem::create_directories(*directory, ignored);
    } else {
        directory = configuration_.resolvedAppGroupDirectory();
    }
    if (!directory) throw QuotaSessionFileRegistryError::missingAppGroupContainer(configuration_.appGroupIdentifier);
    return *directory / defaultFilename;
}

QuotaSessionImportCheckpointCatalog QuotaSessionImportStateStore::load() const {
    const auto file = documentURL();
    std::error_code error;
    if (!std::filesystem::is_regular_file(file, error)) return {};
    try {
        return json::decode<QuotaSessionImportCheckpointCatalog>(readInputFile(file, InputLimit::document("a checkpoint document")));
    } catch (const Error&) {
        return {};  // a damaged document is set aside by the next save
    }
}

void QuotaSessionImportStateStore::save(const QuotaSessionImportCheckpointCatalog& catalog) const {
    const auto file = documentURL();
    std::error_code error;
    if (std::filesystem::is_regular_file(file, error)) {
        try {
            (void)json::decode<QuotaSessionImportCheckpointCatalog>(
                readInputFile(file, InputLimit::document("a checkpoint document")));
        } catch (const Error&) {
            setAsideUnreadableFile(file);  // load() read it as empty; what it held is kept beside it
        }
    }
    writeFileAtomically(file, json::encode(catalog, true) + "\n");
}

std::optional<QuotaSessionImportCheckpoint> QuotaSessionImportStateStore::checkpoint(std::string_view sourceID,
                                                                                    std::string_view providerID) const {
    for (auto& entry : load().entries) {
        if (entry.sourceID == sourceID && entry.providerID == providerID) return std::move(entry);
    }
    return std::nullopt;
}

void QuotaSessionImportStateStore::upsert(const QuotaSessionImportCheckpoint& checkpoint) const {
    auto catalog = load();
    const auto same = [&](const QuotaSessionImportCheckpoint& entry) {
        return entry.sourceID == checkpoint.sourceID && entry.providerID == checkpoint.providerID;
    };
    if (const auto found = std::find_if(catalog.entries.begin(), catalog.entries.end(), same); found != catalog.entries.end()) {
        *found = checkpoint;
    } else {
        catalog.entries.push_back(checkpoint);
    }
    catalog.updatedAt = checkpoint.updatedAt;
    save(catalog);
}

}  // namespace gaugepoint
