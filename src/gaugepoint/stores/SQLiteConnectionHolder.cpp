#include "gaugepoint/stores/SQLiteConnectionHolder.hpp"

#include <sqlite3.h>

#include <map>

namespace gaugepoint {

std::shared_ptr<SQLiteConnectionHolder> SQLiteConnectionHolder::shared(const std::filesystem::path& file) {
    static std::mutex registryLock;
    // Holders are never dropped: the connection stays open for the life of the process, so a
    // widget that makes a store value per refresh does not set the database up each time.
    static std::map<std::filesystem::path, std::shared_ptr<SQLiteConnectionHolder>> registry;
    std::lock_guard guard{registryLock};
    auto& slot = registry[file];
    if (!slot) slot = std::make_shared<SQLiteConnectionHolder>(file);
    return slot;
}

namespace {
std::atomic<std::int64_t> busyTimeoutMilliseconds{2000};
}  // namespace

void SQLiteConnectionHolder::setBusyTimeout(std::chrono::milliseconds timeout) {
    busyTimeoutMilliseconds.store(timeout.count());
}

std::chrono::milliseconds SQLiteConnectionHolder::busyTimeout() {
    return std::chrono::milliseconds(busyTimeoutMilliseconds.load());
}

SQLiteConnectionHolder::~SQLiteConnectionHolder() { close(); }

void SQLiteConnectionHolder::close() {
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
    constexpr int kFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX;  // 0x10006
    if (sqlite3_open_v2(file_.c_str(), &db_, kFlags, nullptr) != SQLITE_OK) {
        close();
        throw sqlite::Failure(setup.openFailurePrefix + file_.string());
    }
    try {
        sqlite::Connection connection{db_};
        const std::chrono::milliseconds kBusyTimeout = busyTimeout();
        if (sqlite3_busy_timeout(db_, int(kBusyTimeout.count())) != SQLITE_OK) connection.fail("set busy timeout");
        // Switching a new file to WAL while the other process does the same is refused at once
        // rather than waited for; it gets the same time as any other lock.
        connection.execWaitingOutLocks("PRAGMA journal_mode=WAL", "set journal mode", kBusyTimeout);
        connection.exec("PRAGMA synchronous=NORMAL", "set synchronous");
        connection.exec("PRAGMA mmap_size=268435456", "set mmap size");
        if (setup.schemaScript) connection.exec(setup.schemaScript, "ensure schema");
        if (setup.migrate) setup.migrate(connection);
    } catch (...) {
        close();  // nothing stays half-open; the next call opens again
        throw;
    }
    didSetup_ = true;
}

}  // namespace gaugepoint
