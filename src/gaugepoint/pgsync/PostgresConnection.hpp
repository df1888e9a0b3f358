#pragma once

// One connection to a PostgreSQL server through libpq, which is loaded on the first connection
// (see platform/SharedLibrary.hpp). Statements take their parameters as text, apart from the
// SQL, so nothing the records hold is ever spliced into a statement. A connection is used by one
// thread at a time.
//
// What identifies the server is a libpq connection string, in either form ("host=... dbname=..."
// or "postgresql://user@host/db"); TLS settings, the password file and the service file work as
// libpq makes them work. Messages name the server by role, host, port and database only: a
// password never appears in anything this program prints.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "gaugepoint/platform/Error.hpp"

namespace gaugepoint {

// A failure the server or libpq reported, with its SQLSTATE code ("08006" when the connection
// itself failed or was lost, "40001" for a serialization failure, ...).
class PostgresError : public Error {
public:
    PostgresError(std::string sqlState, const std::string& message) : Error(message), sqlState_(std::move(sqlState)) {}
    const std::string& sqlState() const noexcept { return sqlState_; }
    // Class 08: the connection could not be made or was lost.
    bool isConnectionFailure() const { return sqlState_.rfind("08", 0) == 0; }

private:
    std::string sqlState_;
};

// The rows a statement returned, every value as text (none for NULL).
class PostgresRows {
public:
    std::size_t size() const { return rows_.size(); }
    bool empty() const { return rows_.empty(); }
    const std::optional<std::string>& at(std::size_t row, std::size_t column) const { return rows_.at(row).at(column); }
    // The value as text; "" for NULL.
    std::string text(std::size_t row, std::size_t column) const { return at(row, column).value_or(""); }
    std::int64_t integer(std::size_t row, std::size_t column) const;

    std::vector<std::vector<std::optional<std::string>>> rows_;
};

using PostgresParameters = std::vector<std::optional<std::string>>;

class PostgresConnection {
public:
    // Connects, with a connect timeout of 10 s unless the string sets one. Throws PostgresError
    // (also when libpq is not installed).
    static PostgresConnection open(const std::string& connectionString);

    // Runs one statement with $1... bound to `parameters`. Throws PostgresError.
    PostgresRows execute(const char* sql, const PostgresParameters& parameters = {});
    // Runs a script of statements without parameters. Throws PostgresError.
    void executeScript(const char* sql);

    // Runs `work` between BEGIN and COMMIT; rolls back and rethrows when it throws.
    template <class Work>
    auto inTransaction(Work&& work) {
        execute("BEGIN");
        try {
            if constexpr (std::is_void_v<decltype(work())>) {
                work();
                execute("COMMIT");
            } else {
                auto result = work();
                execute("COMMIT");
                return result;
            }
        } catch (...) {
            rollbackQuietly();
            throw;
        }
    }

    // "alice@/run/postgresql:5432/gaugepoint": who is connected where, without any secret.
    std::string description() const;

    // Whether `connectionString` carries a password (which this program will not store).
    // Throws PostgresError when it does not parse.
    static bool hasPassword(const std::string& connectionString);

    struct Handle;  // the libpq connection, closed with the last copy

private:
    explicit PostgresConnection(std::shared_ptr<Handle> handle) : handle_(std::move(handle)) {}
    void rollbackQuietly() noexcept;
    std::shared_ptr<Handle> handle_;
};

// A PostgreSQL array literal of texts ("{\"a\",NULL}"), for binding a list as one parameter.
std::string postgresArray(const std::vector<std::optional<std::string>>& values);

}  // namespace gaugepoint
