#pragma once

// What every store value of the App Group directory shares: where its file is, the connection
// holders of that file, one way of running an operation that reports SQLite failures as the
// store's own error, and one rule for trims.

#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "gaugepoint/platform/QuotaSyncConfiguration.hpp"
#include "gaugepoint/stores/SQLiteConnectionHolder.hpp"

namespace gaugepoint {

// How a trim (a DELETE of the rows past a cutoff, sqlite::trimRows) fails; one rule for every
// store, chosen where the trim is called:
// - Trim::failsTheCall: the trim is a write like any other and throws the store's error, for the
//   caller asked for it and must know that it did not happen. Every trim a store offers by name
//   is of this kind unless its contract says it never fails. A trim that runs inside another
//   write (the retention of the history's append) is simply one statement of that write, on
//   its connection, and fails the write with its own label.
// - Trim::housekeeping: the trim tidies up after writes that already succeeded and its caller
//   goes on whatever happens: it never throws and reports 0 rows. The failure stays visible as
//   SQLiteConnectionHolder::lastFailure() for the command layer, unless it was only another
//   process's lock (the next trim does the work then).
enum class Trim { failsTheCall, housekeeping };

// StoreError has static missingAppGroupContainer(identifier) and sqliteFailure(message).
template <class StoreError>
class SQLiteStore {
public:
    // The database file; throws StoreError::missingAppGroupContainer when there is no directory.
    std::filesystem::path databaseURL() const {
        if (!file_) throw StoreError::missingAppGroupContainer(configuration_.appGroupIdentifier);
        return *file_;
    }
    const QuotaSyncConfiguration& configuration() const { return configuration_; }

protected:
    // Whether the store also reads through the file's reader connection (see runReading()).
    enum class Connections { writerOnly, writerAndReader };

    // `directoryOverride` replaces the App Group directory (created when missing).
    SQLiteStore(QuotaSyncConfiguration configuration, const std::optional<std::filesystem::path>& directoryOverride,
                std::string_view filename, Connections connections = Connections::writerOnly)
        : configuration_(std::move(configuration)) {
        std::optional<std::filesystem::path> directory = directoryOverride;
        if (directory) {
            std::error_code ignored;
            std::filesystem::create_directories(*directory, ignored);
        } else {
            directory = configuration_.resolvedAppGroupDirectory();
        }
        if (directory) {
            file_ = *directory / filename;
            connectionHolder_ = SQLiteConnectionHolder::shared(*file_);
            if (connections == Connections::writerAndReader) {
                readerHolder_ = SQLiteConnectionHolder::shared(*file_, SQLiteConnectionHolder::Role::reader);
            }
        }
    }

    // Runs `operation` on the set-up writer connection under its holder's lock. Throws StoreError.
    template <class Operation>
    auto run(const SQLiteStoreSetup& setup, Operation&& operation,
             const std::function<void(SQLiteConnectionHolder&)>& beforeOpen = {}) const {
        databaseURL();
        return runOn(*connectionHolder_, setup, operation, beforeOpen);
    }

    // run() on the reader connection when the store has one (each connection is set up by
    // `setup` when it opens), else on the writer. Throws StoreError.
    template <class Operation>
    auto runReading(const SQLiteStoreSetup& setup, Operation&& operation) const {
        databaseURL();
        return runOn(readerHolder_ ? *readerHolder_ : *connectionHolder_, setup, operation, {});
    }

    // runReading(), with any failure swallowed and `fallback` returned: for reads that feed widgets.
    template <class Operation, class Result>
    Result readOr(const SQLiteStoreSetup& setup, Operation&& operation, Result fallback) const noexcept {
        try {
            return runReading(setup, operation);
        } catch (...) {
            return fallback;
        }
    }

    // Runs `trim` (an operation of this store that deletes with sqlite::trimRows and returns the
    // rows it removed) by the rule of `kind`; see Trim.
    template <class Operation>
    static std::int64_t trimming(Trim kind, Operation&& trim) {
        if (kind == Trim::failsTheCall) return trim();
        try {
            return trim();
        } catch (...) {
            return 0;  // kept as SQLiteConnectionHolder::lastFailure() when SQLite failed
        }
    }

    QuotaSyncConfiguration configuration_;
    std::optional<std::filesystem::path> file_;
    std::shared_ptr<SQLiteConnectionHolder> connectionHolder_;
    std::shared_ptr<SQLiteConnectionHolder> readerHolder_;  // null for a store that reads on its writer

private:
    template <class Operation>
    static auto runOn(SQLiteConnectionHolder& holder, const SQLiteStoreSetup& setup, Operation&& operation,
                      const std::function<void(SQLiteConnectionHolder&)>& beforeOpen) {
        try {
            return holder.withConnection(setup, operation, beforeOpen);
        } catch (const sqlite::Failure& failure) {
            throw StoreError::sqliteFailure(failure.what());
        }
    }
};

namespace sqlite {

// Deletes the rows that `sql` (a DELETE with one parameter, a string constant) selects with that
// parameter bound to `cutoff`, through the connection's statement cache; returns how many went.
// Throws Failure labelled "prepare <operation>" / "execute <operation>".
std::int64_t trimRows(Connection& connection, const char* sql, double cutoff, std::string_view operation);
std::int64_t trimRows(Connection& connection, const char* sql, std::string_view cutoff, std::string_view operation);

// The names of `table`'s columns ("PRAGMA table_info(" + table + ")"); `label` names the step.
std::set<std::string> tableColumns(Connection& connection, std::string_view table, std::string_view label);

// A TEXT column as a string; none for NULL.
std::optional<std::string> optionalText(const Statement& row, int column);
// A REAL column as a date; none for NULL.
std::optional<Date> optionalDate(const Statement& row, int column);
// Binds a date as seconds since 1970, or NULL for none.
void bindDate(Statement& statement, int index, const std::optional<Date>& date);

}  // namespace sqlite

// The one-time import of data that earlier versions kept in the ubiquity (cloud documents)
// directory, guarded by a marker in the user defaults. Runs before the database is opened: when
// the marker is set nothing happens; when the database file already exists the marker is set;
// otherwise `readLegacy` looks for the earlier data and the holder remembers that an import is
// pending until the store's migration has written it (see finish()).
struct LegacyMigration {
    std::string_view markerKey;

    // Whether an import is due; `found` tells whether readLegacy found anything.
    bool beforeOpen(SQLiteConnectionHolder& holder, const QuotaSyncConfiguration& configuration,
                    const std::filesystem::path& file, const std::function<bool()>& readLegacy) const;
    // Marks the import done.
    void finish(SQLiteConnectionHolder& holder, const QuotaSyncConfiguration& configuration) const;

    // The first of <ubiquity>/Documents/<name> and <ubiquity>/<name> that is a regular file.
    static std::optional<std::filesystem::path> legacyFile(const QuotaSyncConfiguration& configuration,
                                                           std::string_view name);
};

}  // namespace gaugepoint
