#pragma once

// What every store value of the App Group directory shares: where its file is, the connection
// holder of that file, and one way of running an operation that reports SQLite failures as the
// store's own error.

#include <filesystem>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

#include "gaugepoint/platform/QuotaSyncConfiguration.hpp"
#include "gaugepoint/stores/SQLiteConnectionHolder.hpp"

namespace gaugepoint {

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
    // `directoryOverride` replaces the App Group directory (created when missing).
    SQLiteStore(QuotaSyncConfiguration configuration, const std::optional<std::filesystem::path>& directoryOverride,
                std::string_view filename)
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
        }
    }

    // Runs `operation` on the set-up connection under the holder's lock. Throws StoreError.
    template <class Operation>
    auto run(const SQLiteStoreSetup& setup, Operation&& operation,
             const std::function<void(SQLiteConnectionHolder&)>& beforeOpen = {}) const {
        databaseURL();
        try {
            return connectionHolder_->withConnection(setup, operation, beforeOpen);
        } catch (const sqlite::Failure& failure) {
            throw StoreError::sqliteFailure(failure.what());
        }
    }

    // run(), with any failure swallowed and `fallback` returned: for reads that feed widgets.
    template <class Operation, class Result>
    Result runOr(const SQLiteStoreSetup& setup, Operation&& operation, Result fallback) const noexcept {
        try {
            return run(setup, operation);
        } catch (...) {
            return fallback;
        }
    }

    QuotaSyncConfiguration configuration_;
    std::optional<std::filesystem::path> file_;
    std::shared_ptr<SQLiteConnectionHolder> connectionHolder_;
};

namespace sqlite {

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
