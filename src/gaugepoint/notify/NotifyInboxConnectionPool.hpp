#pragma once

// The inbox's two connections to one database file: a write side and a read side, each with its
// own lock, connection and statement cache, so that a list can be read while a write runs.

#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "gaugepoint/stores/SQLite.hpp"
#include "gaugepoint/stores/SQLiteConnectionHolder.hpp"

struct sqlite3;

namespace gaugepoint {

// Statements prepared once per connection, keyed by their SQL text. Not thread-safe: use it only
// under the lock of the side that owns it.
class NotifyStmtCache {
public:
    // A cached statement in use. It is reset (cursor rewound, bindings cleared) when taken and
    // again when the lease ends, so a half-read statement never keeps a read transaction open.
    class Lease {
    public:
        explicit Lease(sqlite::Statement& statement) : statement_(&statement) { statement_->reset(); }
        ~Lease() { statement_->reset(); }
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;
        sqlite::Statement& operator*() const { return *statement_; }
        sqlite::Statement* operator->() const { return statement_; }

    private:
        sqlite::Statement* statement_;
    };

    // The statement for `sql` on `connection`, prepared on first use with the labels "prepare
    // <operation>" and "execute <operation>". Throws sqlite::Failure when it cannot be prepared.
    // A statement is labelled by the first operation that prepares its text.
    Lease statement(sqlite::Connection connection, const std::string& sql, std::string_view operation);

    // Statements held (for tests and benchmarks).
    std::size_t size() const { return stmts_.size(); }

private:
    sqlite3* db_ = nullptr;  // the connection the statements belong to
    std::unordered_map<std::string, std::unique_ptr<sqlite::Statement>> stmts_;
};

// The write side and the read side of one database file. Each side opens lazily on first use,
// runs the SQLite layer's set-up (busy timeout, WAL, synchronous, memory map: the configure
// block) and then the store's schema block, and closes again when either fails so that the next
// call starts over. Thread-safe; calls on one side serialise on that side's lock.
class NotifyInboxConnectionPool {
public:
    // `schema` carries the open-failure prefix and, in `migrate`, the schema block; its
    // schemaScript is not used.
    NotifyInboxConnectionPool(std::filesystem::path dbURL, SQLiteStoreSetup schema);
    NotifyInboxConnectionPool(const NotifyInboxConnectionPool&) = delete;
    NotifyInboxConnectionPool& operator=(const NotifyInboxConnectionPool&) = delete;

    // Runs `operation(connection, statements)` on the write side while holding writeLock.
    // Throws sqlite::Failure.
    template <class Operation>
    auto write(Operation&& operation) {
        return write_.holder.withConnection(setup_, [&](sqlite::Connection& connection) {
            return operation(connection, write_.stmts);
        });
    }
    // The same on the read side, under readLock.
    template <class Operation>
    auto read(Operation&& operation) {
        return read_.holder.withConnection(setup_, [&](sqlite::Connection& connection) {
            return operation(connection, read_.stmts);
        });
    }

    const std::filesystem::path& dbURL() const { return dbURL_; }

private:
    struct Side {
        explicit Side(const std::filesystem::path& file) : holder(file) {}
        SQLiteConnectionHolder holder;  // lock, connection, did-setup flag
        NotifyStmtCache stmts;          // finalized before the holder closes the connection
    };

    std::filesystem::path dbURL_;
    SQLiteStoreSetup setup_;
    Side write_;
    Side read_;
};

}  // namespace gaugepoint
