#pragma once

// The one thin layer over the SQLite C API that every store uses: labelled failures,
// multi-statement execution, and prepared statements that are always finalized.

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "gaugepoint/platform/Error.hpp"

struct sqlite3;
struct sqlite3_stmt;

namespace gaugepoint::sqlite {

class StatementCache;

// A failed SQLite step: what() is the step's label, ": ", then SQLite's message. code() is
// SQLite's primary result code (SQLITE_FULL, SQLITE_NOTADB, ...), 0 when none applies (a row
// that cannot be bound), or Failure::foreignFile for a database that holds none of the store's
// tables but tables of another program.
class Failure : public Error {
public:
    static constexpr int foreignFile = -1;

    explicit Failure(const std::string& message, int code = 0) : Error(message), code_(code) {}
    int code() const { return code_; }

private:
    int code_;
};

// A borrowed open connection (the holder owns it), with the holder's statement cache when it
// has one (see CachedStatement).
class Connection {
public:
    explicit Connection(sqlite3* db, StatementCache* statements = nullptr) : db_(db), statements_(statements) {}

    // Runs one or more statements. Throws Failure("<label>: <message>").
    void exec(const char* sql, std::string_view label);
    // As exec, but when SQLite answers "busy" without waiting (it does so when waiting could
    // deadlock, as two processes switching a new file to WAL at once can), tries again every
    // few milliseconds until `budget` has passed.
    void execWaitingOutLocks(const char* sql, std::string_view label, std::chrono::milliseconds budget);
    // As exec, but gives up at once when another connection holds the lock it needs: false then.
    // `busyTimeout` is the connection's wait for locks, restored afterwards.
    bool execUnlessLocked(const char* sql, std::string_view label, std::chrono::milliseconds busyTimeout);
    // Rolls back an open transaction, if any; errors ignored (for clean-up on failure paths).
    void rollbackQuietly() noexcept;
    // Whether no transaction is open.
    bool inAutocommit() const;
    // Rows changed by the last statement.
    std::int64_t changes() const;
    // The rowid of the last row inserted on this connection.
    std::int64_t lastInsertRowID() const;
    // Copies the write-ahead log into the database without waiting for readers or writers, and
    // empties the log when no reader still needs it (else it stays for a later checkpoint or the
    // last close); errors ignored. `busyTimeout` is the connection's, restored after.
    void checkpointQuietly(std::chrono::milliseconds busyTimeout) noexcept;
    // Throws Failure with `label` and the connection's current error message.
    [[noreturn]] void fail(std::string_view label) const;

    sqlite3* handle() const { return db_; }
    // The statements kept for this connection, or null when none are (a connection made outside
    // a holder). Use them only under the holder's lock.
    StatementCache* statementCache() const { return statements_; }

private:
    sqlite3* db_;
    StatementCache* statements_;
};

// A prepared statement, finalized when it goes out of scope (on error paths too). It keeps its
// own copy of the connection handle, so it may outlive the Connection value it was made from (a
// statement cache keeps statements across calls); it must not outlive the open connection.
class Statement {
public:
    // Prepares `sql` (NUL-terminated, length -1). Throws Failure(prepareLabel).
    Statement(Connection& connection, const char* sql, std::string_view prepareLabel, std::string executeLabel);
    // The same with the labels made from one operation name: "prepare <operation>" and
    // "execute <operation>", the form every store's failures take.
    Statement(Connection& connection, const char* sql, std::string_view operation)
        : Statement(connection, sql, "prepare " + std::string(operation), "execute " + std::string(operation)) {}
    ~Statement();
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    // Parameters count from 1. Throw Failure(executeLabel). A short text is copied into a
    // buffer the statement keeps per parameter, so a statement run row after row allocates
    // nothing for its texts once warm.
    Statement& bind(int index, std::string_view text);
    Statement& bind(int index, const std::string& text) { return bind(index, std::string_view(text)); }
    Statement& bind(int index, const char* text) { return bind(index, std::string_view(text)); }
    Statement& bind(int index, const std::optional<std::string>& text);  // none binds NULL
    Statement& bind(int index, double value);
    Statement& bind(int index, std::int64_t value);
    Statement& bindBlob(int index, std::span<const std::uint8_t> bytes);
    // Binds without a copy: `bytes` must stay valid until the statement is reset or finalized.
    Statement& bindBlobInPlace(int index, std::span<const std::uint8_t> bytes);
    Statement& bindNull(int index);
    // The index of the parameter named `name` (":since"), 0 when the statement has none.
    int parameterIndex(const char* name) const;

    // Advances: true when a row is ready, false when done. Throws Failure(executeLabel).
    bool step();
    // Steps to the end, for statements that return no rows.
    void run();
    // Resets and clears the bindings, ready for the next row of a batch.
    void reset();
    // Throws Failure("<executeLabel>: <message>"), for a row that cannot be bound at all.
    [[noreturn]] void fail(std::string_view message) const;

    // Columns of the current row, counting from 0. text() is none for NULL (and for a column
    // that is not text); blob() is empty for NULL.
    std::optional<std::string_view> text(int column) const;
    double real(int column) const;
    std::int64_t integer(int column) const;
    std::span<const std::uint8_t> blob(int column) const;
    bool isNull(int column) const;

    // The label of the failures of step() and bind(): a statement kept across calls is used by
    // operations of different names.
    void setExecuteLabel(std::string_view label);

protected:
    // For a subclass that sets statement_ itself; one that borrows a cached statement sets it
    // back to null before this destructor runs, so that only statements of its own are finalized.
    Connection connection_;
    sqlite3_stmt* statement_ = nullptr;
    std::string executeLabel_;
    // The copies of the short texts bound, by parameter; a value borrowing a cached statement
    // uses the cached statement's, which live as long as the statement they are bound to.
    std::vector<std::string> texts_;
    std::vector<std::string>* boundTexts_ = &texts_;
    Statement(Connection connection, std::string executeLabel) : connection_(connection), executeLabel_(std::move(executeLabel)) {}
    friend class StatementCache;
    friend class CachedStatement;  // borrows the sqlite3_stmt of a cached Statement
};

// A statement of a constant SQL text taken from the connection's statement cache: prepared once
// per connection and kept until the connection closes. It comes reset with no bindings, and is
// reset and unbound again when this value ends (error paths too), so a half-read statement never
// holds a read snapshot open between calls. `sql` is the cache key by address: a string constant
// of static storage only, never a text built per call. Without a cache on the connection, or
// while the cached statement is already in use further up the stack, a statement of its own is
// prepared for this use and finalized after it. Throws Failure(prepareLabel) as Statement does.
class CachedStatement : public Statement {
public:
    CachedStatement(Connection& connection, const char* sql, std::string_view prepareLabel, std::string_view executeLabel);
    CachedStatement(Connection& connection, const char* sql, std::string_view operation)
        : CachedStatement(connection, sql, "prepare " + std::string(operation), "execute " + std::string(operation)) {}
    ~CachedStatement();

private:
    bool* inUse_ = nullptr;  // the cache slot's flag, while this value borrows its statement
};

// BEGIN IMMEDIATE ... COMMIT around a batch; rolls back when left without commit().
class Transaction {
public:
    Transaction(Connection& connection, std::string_view label);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    void commit();

private:
    Connection& connection_;
    std::string label_;
    bool open_ = true;
};

// BEGIN ... COMMIT around a run of reads: one snapshot and one set of file locks for all of them,
// where each statement on its own would take and release the locks (a few system calls) again.
class ReadTransaction {
public:
    explicit ReadTransaction(Connection& connection);
    ~ReadTransaction();
    ReadTransaction(const ReadTransaction&) = delete;
    ReadTransaction& operator=(const ReadTransaction&) = delete;

private:
    Connection& connection_;
    bool began_ = false;
};

}  // namespace gaugepoint::sqlite
