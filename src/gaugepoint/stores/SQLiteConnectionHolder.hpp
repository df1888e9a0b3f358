#pragma once

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <cstdint>
#include <mutex>
#include <string>

#include "gaugepoint/stores/SQLite.hpp"

struct sqlite3;

namespace gaugepoint {

// What one store needs done when its database is opened.
struct SQLiteStoreSetup {
    std::string openFailurePrefix;  // "Unable to open history database at "
    const char* schemaScript;       // CREATE ... IF NOT EXISTS, run as one multi-statement execution;
                                    // null when `migrate` builds the schema itself
    std::function<void(sqlite::Connection&)> migrate;  // after the schema; may be empty
};

// The lock, connection and set-up flag shared by every copy of one store (one holder per
// database file in the process). The connection is opened lazily, kept for the life of the
// process, and closed again when its set-up fails so that the next call starts over.
class SQLiteConnectionHolder {
public:
    // The memory map every connection is set up with (PRAGMA mmap_size): 256 MiB.
    static constexpr std::int64_t memoryMapBytes = 268435456;

    // How long a connection opened from now on waits for another process's lock: 2000 ms unless
    // a command that must answer within a budget (a status line) sets less. Process-wide.
    static void setBusyTimeout(std::chrono::milliseconds timeout);
    static std::chrono::milliseconds busyTimeout();

    // The holder of `file`, shared by every store value that uses that file.
    static std::shared_ptr<SQLiteConnectionHolder> shared(const std::filesystem::path& file);

    explicit SQLiteConnectionHolder(std::filesystem::path file) : file_(std::move(file)) {}
    ~SQLiteConnectionHolder();
    SQLiteConnectionHolder(const SQLiteConnectionHolder&) = delete;
    SQLiteConnectionHolder& operator=(const SQLiteConnectionHolder&) = delete;

    // Runs `operation` on the set-up connection while holding dbLock. When the connection is
    // not open, first runs `beforeOpen` (under the lock), then opens (read-write, create,
    // full mutex), sets the busy timeout (above), the WAL journal, synchronous NORMAL and a
    // 256 MiB memory map, ensures the schema and migrates. Throws sqlite::Failure.
    template <class Operation>
    auto withConnection(const SQLiteStoreSetup& setup, Operation&& operation,
                        const std::function<void(SQLiteConnectionHolder&)>& beforeOpen = {}) {
        std::lock_guard guard{dbLock_};
        if (!db_ || !didSetup_) {
            if (beforeOpen) beforeOpen(*this);
            open(setup);
        }
        sqlite::Connection connection{db_};
        return operation(connection);
    }

    const std::filesystem::path& file() const { return file_; }

    // Set by a store's beforeOpen when it has found earlier data to bring into a new file, and
    // cleared by its migration once that data is in. Kept here, under dbLock, so that an import
    // that fails is tried again by the next call although the file now exists.
    bool legacyImportPending = false;

private:
    void open(const SQLiteStoreSetup& setup);
    void close();

    std::mutex dbLock_;
    sqlite3* db_ = nullptr;
    bool didSetup_ = false;
    std::filesystem::path file_;
};

}  // namespace gaugepoint
