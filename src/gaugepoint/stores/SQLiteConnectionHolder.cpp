#include "gaugepoint/stores/SQLiteConnectionHolder.hpp"

#include <sqlite3.h>
#include <unistd.h>

#include <cctype>
#include <map>

namespace gaugepoint {

std::shared_ptr<SQLiteConnectionHolder> SQLiteConnectionHolder::shared(const std::filesystem::path& file, Role role) {
    static std::mutex registryLock;
    // Holders are never dropped: the connection stays open for the life of the process, so a
    // widget that makes a store value per refresh does not set the database up each time.
    static std::map<std::pair<std::filesystem::path, Role>, std::shared_ptr<SQLiteConnectionHolder>> registry;
    std::lock_guard guard{registryLock};
    auto& slot = registry[{file, role}];
    if (!slot) slot = std::make_shared<SQLiteConnectionHolder>(file);
    return slot;
}

namespace {
std::atomic<std::int64_t> busyTimeoutMilliseconds{2000};

std::mutex lastFailureLock;
std::optional<SQLiteStoreFailure> lastFailureKept;

// The names after "CREATE TABLE IF NOT EXISTS" in a schema script.
std::vector<std::string> tablesCreatedBy(const char* script) {
    std::vector<std::string> tables;
    if (!script) return tables;
    const std::string_view text{script};
    constexpr std::string_view kCreate = "CREATE TABLE IF NOT EXISTS ";
    for (auto at = text.find(kCreate); at != std::string_view::npos; at = text.find(kCreate, at)) {
        at += kCreate.size();
        while (at < text.size() && std::isspace(static_cast<unsigned char>(text[at]))) ++at;
        const auto begin = at;
        while (at < text.size() && (std::isalnum(static_cast<unsigned char>(text[at])) || text[at] == '_')) ++at;
        if (at > begin) tables.emplace_back(text.substr(begin, at - begin));
    }
    return tables;
}

bool writable(const std::filesystem::path& path) { return ::access(path.c_str(), W_OK) == 0; }

// "file:<path>?immutable=1", the path percent-encoded where a URI needs it.
std::string immutableURI(const std::filesystem::path& file) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string uri = "file:";
    for (const unsigned char c : file.string()) {
        if (c == '%' || c == '?' || c == '#' || c < 0x21 || c >= 0x7f) {
            uri += '%';
            uri += kHex[c >> 4];
            uri += kHex[c & 15];
        } else {
            uri += char(c);
        }
    }
    return uri + "?immutable=1";
}
}  // namespace

std::optional<SQLiteStoreFailure> SQLiteConnectionHolder::lastFailure() {
    std::lock_guard guard{lastFailureLock};
    return lastFailureKept;
}

void SQLiteConnectionHolder::clearLastFailure() {
    std::lock_guard guard{lastFailureLock};
    lastFailureKept.reset();
}

void SQLiteConnectionHolder::remember(const sqlite::Failure& failure) const {
    // A lock held by another process is waited out or passed over on purpose (a status line
    // answers with what it has); it says nothing about the file.
    if (failure.code() == SQLITE_BUSY || failure.code() == SQLITE_LOCKED) return;
    std::lock_guard guard{lastFailureLock};
    lastFailureKept = SQLiteStoreFailure{file_, failure.what(), failure.code(),
                                         failure.code() == sqlite::Failure::foreignFile ? foreignTables_ : ""};
}

void SQLiteConnectionHolder::refuseForeignFile(const SQLiteStoreSetup& setup) {
    const std::vector<std::string> own = setup.ownTables.empty() ? tablesCreatedBy(setup.schemaScript) : setup.ownTables;
    if (own.empty()) return;
    std::vector<std::string> present;
    try {
        sqlite::Connection connection{db_};
        sqlite::Statement tables{connection,
                                 "SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite_%' "
                                 "ORDER BY name",
                                 "check store tables", "check store tables"};
        while (tables.step()) {
            if (auto name = tables.text(0)) present.emplace_back(*name);
        }
    } catch (const sqlite::Failure&) {
        return;  // not readable as a database at all: the set-up steps report it in their words
    }
    if (present.empty()) return;  // a new or emptied file: the schema makes it ours
    for (const auto& name : present) {
        for (const auto& mine : own) {
            if (name == mine) return;
        }
    }
    foreignTables_.clear();
    for (const auto& name : present) foreignTables_ += (foreignTables_.empty() ? "" : ", ") + name;
    throw sqlite::Failure(setup.openFailurePrefix + file_.string(), sqlite::Failure::foreignFile);
}

void SQLiteConnectionHolder::setBusyTimeout(std::chrono::milliseconds timeout) {
    busyTimeoutMilliseconds.store(timeout.count());
}

std::chrono::milliseconds SQLiteConnectionHolder::busyTimeout() {
    return std::chrono::milliseconds(busyTimeoutMilliseconds.load());
}

SQLiteConnectionHolder::~SQLiteConnectionHolder() { close(); }

void SQLiteConnectionHolder::close() {
    statements_.reset();  // finalized first: a connection with live statements would linger open
    sqlite3_close_v2(db_);
    db_ = nullptr;
    didSetup_ = false;
}

void SQLiteConnectionHolder::open(const SQLiteStoreSetup& setup) {
    // SQLite counts its memory under a global mutex on every allocation unless told not to, and
    // nothing here reads the counts. Only possible before SQLite initialises (else a no-op).
    static const bool countsOff = sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0) == SQLITE_OK;
    (void)countsOff;
    close();
    // Reading needs no write access: a file this process may not change (or whose directory
    // cannot take the -wal and -shm files) is opened read-only and left exactly as it is, and a
    // missing file in such a directory is an empty store that refuses writes. Root passes
    // access() on any permissions but a read-only file system, where the same rule holds.
    std::error_code ignored;
    const auto directory = file_.parent_path().empty() ? std::filesystem::path(".") : file_.parent_path();
    const bool exists = std::filesystem::exists(file_, ignored);
    const bool readOnly = std::filesystem::is_directory(directory, ignored) && (!writable(directory) || (exists && !writable(file_)));
    const bool inMemory = readOnly && !exists;
    constexpr int kFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX;  // 0x10006
    int flags = readOnly && !inMemory ? SQLITE_OPEN_READONLY | SQLITE_OPEN_FULLMUTEX : kFlags;
    std::string name = inMemory ? ":memory:" : file_.string();
    if (readOnly && !inMemory && !writable(directory) &&
        !std::filesystem::exists(file_.string() + "-shm", ignored)) {
        // A WAL file can only be read through its -shm index, which this directory cannot take.
        // Without one no process has the file open for writing, so it is read as it lies.
        name = immutableURI(file_);
        flags |= SQLITE_OPEN_URI;
    }
    if (sqlite3_open_v2(name.c_str(), &db_, flags, nullptr) != SQLITE_OK) {
        const int code = db_ ? sqlite3_errcode(db_) & 0xff : SQLITE_CANTOPEN;
        close();
        throw sqlite::Failure(setup.openFailurePrefix + file_.string(), code);
    }
    try {
        sqlite::Connection connection{db_};
        const std::chrono::milliseconds kBusyTimeout = busyTimeout();
        if (sqlite3_busy_timeout(db_, int(kBusyTimeout.count())) != SQLITE_OK) connection.fail("set busy timeout");
        if (exists && !inMemory) refuseForeignFile(setup);
        if (!readOnly) {
            // Switching a new file to WAL while the other process does the same is refused at
            // once rather than waited for; it gets the same time as any other lock.
            connection.execWaitingOutLocks("PRAGMA journal_mode=WAL", "set journal mode", kBusyTimeout);
            connection.exec("PRAGMA synchronous=NORMAL", "set synchronous");
        }
        connection.exec("PRAGMA mmap_size=268435456", "set mmap size");
        if (setup.schemaScript) connection.exec(setup.schemaScript, "ensure schema");
        if (setup.migrate) setup.migrate(connection);
        if (inMemory) connection.exec("PRAGMA query_only=ON", "set query only");
    } catch (...) {
        close();  // nothing stays half-open; the next call opens again
        throw;
    }
    statements_ = std::make_unique<sqlite::StatementCache>(sqlite::Connection{db_});
    didSetup_ = true;
}

}  // namespace gaugepoint
