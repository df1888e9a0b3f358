#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "gaugepoint/stores/SQLite.hpp"
#include "gaugepoint/stores/SQLiteStatementCache.hpp"

struct sqlite3;

namespace gaugepoint {

// What one store needs done when its database is opened.
struct SQLiteStoreSetup {
    std::string openFailurePrefix;  // "Unable to open history database at "
    const char* schemaScript;       // CREATE ... IF NOT EXISTS, run as one multi-statement execution;
                                    // null when `migrate` builds the schema itself
    std::function<void(sqlite::Connection&)> migrate;  // after the schema; may be empty
    // The tables that make a database file ours. Empty: those the schema script creates. A file
    // that has tables but none of these belongs to another program and is never written to.
    std::vector<std::string> ownTables = {};
};

// A store failure as the command layer reports it: which file, what SQLite said (the store
// error's description), and SQLite's primary result code (sqlite::Failure::code()).
struct SQLiteStoreFailure {
    std::filesystem::path file;
    std::string message;
    int code = 0;
    std::string detail;  // for a foreign file: the tables it holds ("accounts, events")
};

// The lock, connection, statement cache and set-up flag shared by every copy of one store (one
// holder per database file and role in the process). The connection is opened lazily, kept for
// the life of the process, and closed again when its set-up fails so that the next call starts
// over. The statements cached for a connection are finalized before it closes.
class SQLiteConnectionHolder {
public:
    // The memory map every connection is set up with (PRAGMA mmap_size): 256 MiB.
    static constexpr std::int64_t memoryMapBytes = 268435456;

    // How long a connection opened from now on waits for another process's lock: 2000 ms unless
    // a command that must answer within a budget (a status line) sets less. Process-wide.
    static void setBusyTimeout(std::chrono::milliseconds timeout);
    static std::chrono::milliseconds busyTimeout();

    // Which connection of a file a holder keeps. Every store writes and reads through its
    // writer; a store whose lists must stay readable while a write runs (WAL lets a second
    // connection read the last commit meanwhile) also reads through the file's reader, which has
    // its own lock, connection and statements.
    enum class Role { writer, reader };

    // The holder of `file` in `role`, shared by every store value that uses that file.
    static std::shared_ptr<SQLiteConnectionHolder> shared(const std::filesystem::path& file, Role role = Role::writer);

    explicit SQLiteConnectionHolder(std::filesystem::path file) : file_(std::move(file)) {}
    ~SQLiteConnectionHolder();
    SQLiteConnectionHolder(const SQLiteConnectionHolder&) = delete;
    SQLiteConnectionHolder& operator=(const SQLiteConnectionHolder&) = delete;

    // Runs `operation` on the set-up connection while holding dbLock. When the connection is
    // not open, first runs `beforeOpen` (under the lock), then opens (read-write, create,
    // full mutex), sets the busy timeout (above), the WAL journal, synchronous NORMAL and a
    // 256 MiB memory map, ensures the schema and migrates. Throws sqlite::Failure.
    //
    // When the file exists but this process may not write it or its directory, the file is
    // opened read-only and left as it is (no journal-mode change, no -wal or -shm file made);
    // a file that does not exist in such a directory reads as an empty store in memory that
    // refuses writes. A file holding other tables than the store's (setup.ownTables) fails
    // with code sqlite::Failure::foreignFile before anything is written to it.
    // Every failure that leaves this function is also kept as lastFailure().
    template <class Operation>
    auto withConnection(const SQLiteStoreSetup& setup, Operation&& operation,
                        const std::function<void(SQLiteConnectionHolder&)>& beforeOpen = {}) {
        std::lock_guard guard{dbLock_};
        struct ResetStatements {  // on the way out, failures too; the cache may be gone by then
            SQLiteConnectionHolder& holder;
            ~ResetStatements() {
                if (holder.statements_) holder.statements_->resetHandedOut();
            }
        } resetStatements{*this};
        try {
            if (!db_ || !didSetup_) {
                if (beforeOpen) beforeOpen(*this);
                open(setup);
            }
            sqlite::Connection connection{db_, statements_.get()};
            return operation(connection);
        } catch (const sqlite::Failure& failure) {
            remember(failure);
            throw;
        }
    }

    // The most recent SQLite failure of any store of this process that was not a wait for
    // another process's lock (those pass), whether or not its caller let it through: readers
    // that feed widgets swallow failures and return empty, and the command layer uses this to
    // report a damaged or unreadable store instead of showing it as empty. Thread-safe.
    static std::optional<SQLiteStoreFailure> lastFailure();
    // Forgets the kept failure (for tests and long-running faces).
    static void clearLastFailure();

    const std::filesystem::path& file() const { return file_; }

    // Set by a store's beforeOpen when it has found earlier data to bring into a new file, and
    // cleared by its migration once that data is in. Kept here, under dbLock, so that an import
    // that fails is tried again by the next call although the file now exists.
    bool legacyImportPending = false;

private:
    void open(const SQLiteStoreSetup& setup);
    void close();
    void remember(const sqlite::Failure& failure) const;
    // Throws Failure(foreignFile) when the open file has tables and none of `setup`'s own.
    void refuseForeignFile(const SQLiteStoreSetup& setup);

    std::string foreignTables_;  // set by refuseForeignFile for remember()

    std::mutex dbLock_;
    sqlite3* db_ = nullptr;
    std::unique_ptr<sqlite::StatementCache> statements_;  // of db_; made when it is set up
    bool didSetup_ = false;
    std::filesystem::path file_;
};

}  // namespace gaugepoint
