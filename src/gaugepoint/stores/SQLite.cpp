#include "gaugepoint/stores/SQLite.hpp"

#include "gaugepoint/stores/SQLiteStatementCache.hpp"

#include <sqlite3.h>

#include <thread>

namespace gaugepoint::sqlite {

void Connection::fail(std::string_view label) const {
    std::string message{label};
    message += ": ";
    message += sqlite3_errmsg(db_);
    throw Failure(message, sqlite3_errcode(db_) & 0xff);
}

void Connection::exec(const char* sql, std::string_view label) {
    if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) fail(label);
}

bool Connection::execUnlessLocked(const char* sql, std::string_view label, std::chrono::milliseconds busyTimeout) {
    sqlite3_busy_timeout(db_, 0);
    const bool ok = sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
    const int code = sqlite3_errcode(db_) & 0xff;
    sqlite3_busy_timeout(db_, int(busyTimeout.count()));
    if (ok) return true;
    if (code == SQLITE_BUSY || code == SQLITE_LOCKED) return false;
    fail(label);
}

void Connection::execWaitingOutLocks(const char* sql, std::string_view label, std::chrono::milliseconds budget) {
    const auto deadline = std::chrono::steady_clock::now() + budget;
    while (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) != SQLITE_OK) {
        if ((sqlite3_errcode(db_) & 0xff) != SQLITE_BUSY || std::chrono::steady_clock::now() >= deadline) fail(label);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

void Connection::rollbackQuietly() noexcept {
    if (!sqlite3_get_autocommit(db_)) sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
}

bool Connection::inAutocommit() const { return sqlite3_get_autocommit(db_) != 0; }

std::int64_t Connection::changes() const { return sqlite3_changes64(db_); }

std::int64_t Connection::lastInsertRowID() const { return sqlite3_last_insert_rowid(db_); }

void Connection::checkpointQuietly(std::chrono::milliseconds busyTimeout) noexcept {
    // Without a busy handler a truncating checkpoint that meets a reader or writer goes on as a
    // passive one. An emptied log also spares the last close deleting a large file.
    sqlite3_busy_timeout(db_, 0);
    sqlite3_wal_checkpoint_v2(db_, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
    sqlite3_busy_timeout(db_, int(busyTimeout.count()));
}

namespace {

sqlite3_stmt* prepareOrFail(Connection& connection, const char* sql, std::string_view prepareLabel) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(connection.handle(), sql, -1, &statement, nullptr) != SQLITE_OK) {
        sqlite3_finalize(statement);  // may be null; finalizing null is a no-op
        connection.fail(prepareLabel);
    }
    return statement;
}

}  // namespace

Statement::Statement(Connection& connection, const char* sql, std::string_view prepareLabel, std::string executeLabel)
    : connection_(connection), executeLabel_(std::move(executeLabel)) {
    statement_ = prepareOrFail(connection, sql, prepareLabel);
}

Statement::~Statement() { sqlite3_finalize(statement_); }

void Statement::setExecuteLabel(std::string_view label) {
    if (executeLabel_ != label) executeLabel_.assign(label);
}

CachedStatement::CachedStatement(Connection& connection, const char* sql, std::string_view prepareLabel,
                                 std::string_view executeLabel)
    : Statement(connection, std::string(executeLabel)) {
    if (StatementCache* cache = connection.statementCache()) {
        if (auto* slot = cache->borrow(sql, prepareLabel)) {
            inUse_ = &slot->inUse;
            statement_ = slot->statement->statement_;
            boundTexts_ = &slot->statement->texts_;
            return;
        }
    }
    statement_ = prepareOrFail(connection, sql, prepareLabel);
}

CachedStatement::~CachedStatement() {
    if (!inUse_) return;  // a statement of its own: the base finalizes it
    reset();
    *inUse_ = false;
    statement_ = nullptr;
}

void Statement::fail(std::string_view message) const {
    throw Failure(executeLabel_ + ": " + std::string(message));
}

Statement& Statement::bind(int index, std::string_view text) {
    // SQLite copies a transient text into an allocation of its own at every bind, and the
    // system's SQLite takes every allocation from malloc. A short text goes to this parameter's
    // kept buffer instead and is bound in place: the buffer is only changed by the next bind of
    // the same parameter, which replaces the binding.
    constexpr std::size_t kKeptTextBytes = 1024;
    const int parameters = sqlite3_bind_parameter_count(statement_);
    int result;
    if (text.size() <= kKeptTextBytes && index > 0 && index <= parameters) {
        // Made whole at the first bind: growing it later would move the short strings bound
        // before, whose characters live inside the strings themselves.
        auto& texts = *boundTexts_;
        if (texts.empty()) texts.resize(std::size_t(parameters));
        std::string& kept = texts[std::size_t(index) - 1];
        kept.assign(text);
        result = sqlite3_bind_text64(statement_, index, kept.data(), kept.size(), SQLITE_STATIC, SQLITE_UTF8);
    } else {
        result = sqlite3_bind_text64(statement_, index, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
    }
    if (result != SQLITE_OK) connection_.fail(executeLabel_);
    return *this;
}

Statement& Statement::bind(int index, const std::optional<std::string>& text) {
    return text ? bind(index, std::string_view(*text)) : bindNull(index);
}

Statement& Statement::bindNull(int index) {
    if (sqlite3_bind_null(statement_, index) != SQLITE_OK) connection_.fail(executeLabel_);
    return *this;
}

int Statement::parameterIndex(const char* name) const { return sqlite3_bind_parameter_index(statement_, name); }

Statement& Statement::bind(int index, double value) {
    if (sqlite3_bind_double(statement_, index, value) != SQLITE_OK) connection_.fail(executeLabel_);
    return *this;
}

Statement& Statement::bind(int index, std::int64_t value) {
    if (sqlite3_bind_int64(statement_, index, value) != SQLITE_OK) connection_.fail(executeLabel_);
    return *this;
}

namespace {

int bindBlobWith(sqlite3_stmt* statement, int index, std::span<const std::uint8_t> bytes, sqlite3_destructor_type kind) {
    // A zero-length blob must still be a blob, not NULL: SQLite binds NULL for a null pointer.
    static const std::uint8_t empty = 0;
    const void* data = bytes.empty() ? &empty : bytes.data();
    return sqlite3_bind_blob64(statement, index, data, bytes.size(), kind);
}

}  // namespace

Statement& Statement::bindBlob(int index, std::span<const std::uint8_t> bytes) {
    if (bindBlobWith(statement_, index, bytes, SQLITE_TRANSIENT) != SQLITE_OK) connection_.fail(executeLabel_);
    return *this;
}

Statement& Statement::bindBlobInPlace(int index, std::span<const std::uint8_t> bytes) {
    if (bindBlobWith(statement_, index, bytes, SQLITE_STATIC) != SQLITE_OK) connection_.fail(executeLabel_);
    return *this;
}

bool Statement::step() {
    const int result = sqlite3_step(statement_);
    if (result == SQLITE_ROW) return true;
    if (result == SQLITE_DONE) return false;
    connection_.fail(executeLabel_);
}

void Statement::run() {
    while (step()) {
    }
}

void Statement::reset() {
    sqlite3_reset(statement_);
    sqlite3_clear_bindings(statement_);
}

std::optional<std::string_view> Statement::text(int column) const {
    if (sqlite3_column_type(statement_, column) != SQLITE_TEXT) return std::nullopt;
    const auto* data = reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
    return std::string_view(data, std::size_t(sqlite3_column_bytes(statement_, column)));
}

double Statement::real(int column) const { return sqlite3_column_double(statement_, column); }

std::int64_t Statement::integer(int column) const { return sqlite3_column_int64(statement_, column); }

std::span<const std::uint8_t> Statement::blob(int column) const {
    const auto* data = static_cast<const std::uint8_t*>(sqlite3_column_blob(statement_, column));
    const auto size = std::size_t(sqlite3_column_bytes(statement_, column));
    return data ? std::span(data, size) : std::span<const std::uint8_t>{};
}

bool Statement::isNull(int column) const { return sqlite3_column_type(statement_, column) == SQLITE_NULL; }

Transaction::Transaction(Connection& connection, std::string_view label) : connection_(connection), label_(label) {
    connection_.exec("BEGIN IMMEDIATE", "begin " + label_);
}

Transaction::~Transaction() {
    if (open_) connection_.rollbackQuietly();
}

void Transaction::commit() {
    connection_.exec("COMMIT", "commit " + label_);
    open_ = false;
}

ReadTransaction::ReadTransaction(Connection& connection) : connection_(connection) {
    // Inside a transaction already, the reads share that one.
    if (connection_.inAutocommit()) {
        connection_.exec("BEGIN", "begin reads");
        began_ = true;
    }
}

ReadTransaction::~ReadTransaction() {
    if (began_) connection_.rollbackQuietly();  // nothing was written: ending it is all it takes
}

}  // namespace gaugepoint::sqlite
