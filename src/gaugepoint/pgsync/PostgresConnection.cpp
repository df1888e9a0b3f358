#include "gaugepoint/pgsync/PostgresConnection.hpp"

#include <libpq-fe.h>

#include <charconv>

#include "gaugepoint/platform/SharedLibrary.hpp"

namespace gaugepoint {
namespace {

// The part of libpq this program uses, bound at the first connection.
struct Libpq {
    decltype(&PQconnectdbParams) connectdbParams = nullptr;
    decltype(&PQstatus) status = nullptr;
    decltype(&PQerrorMessage) errorMessage = nullptr;
    decltype(&PQfinish) finish = nullptr;
    decltype(&PQexecParams) execParams = nullptr;
    decltype(&PQexec) exec = nullptr;
    decltype(&PQresultStatus) resultStatus = nullptr;
    decltype(&PQresultErrorField) resultErrorField = nullptr;
    decltype(&PQresultErrorMessage) resultErrorMessage = nullptr;
    decltype(&PQntuples) ntuples = nullptr;
    decltype(&PQnfields) nfields = nullptr;
    decltype(&PQgetvalue) getvalue = nullptr;
    decltype(&PQgetisnull) getisnull = nullptr;
    decltype(&PQgetlength) getlength = nullptr;
    decltype(&PQclear) clear = nullptr;
    decltype(&PQhost) host = nullptr;
    decltype(&PQport) port = nullptr;
    decltype(&PQdb) db = nullptr;
    decltype(&PQuser) user = nullptr;
    decltype(&PQconninfoParse) conninfoParse = nullptr;
    decltype(&PQconninfoFree) conninfoFree = nullptr;
    decltype(&PQsetNoticeProcessor) setNoticeProcessor = nullptr;
    decltype(&PQfreemem) freemem = nullptr;
};

const Libpq& libpq() {
    static const std::unique_ptr<Libpq> loaded = []() -> std::unique_ptr<Libpq> {
        const auto lib = SharedLibrary::open({"libpq.so.5", "libpq.5.dylib", "libpq.dylib"});
        if (!lib) return nullptr;
        auto f = std::make_unique<Libpq>();
        const bool bound =
            lib->bind("PQconnectdbParams", f->connectdbParams) && lib->bind("PQstatus", f->status) &&
            lib->bind("PQerrorMessage", f->errorMessage) && lib->bind("PQfinish", f->finish) &&
            lib->bind("PQexecParams", f->execParams) && lib->bind("PQexec", f->exec) && lib->bind("PQresultStatus", f->resultStatus) &&
            lib->bind("PQresultErrorField", f->resultErrorField) &&
            lib->bind("PQresultErrorMessage", f->resultErrorMessage) && lib->bind("PQntuples", f->ntuples) &&
            lib->bind("PQnfields", f->nfields) && lib->bind("PQgetvalue", f->getvalue) &&
            lib->bind("PQgetisnull", f->getisnull) && lib->bind("PQgetlength", f->getlength) &&
            lib->bind("PQclear", f->clear) && lib->bind("PQhost", f->host) && lib->bind("PQport", f->port) &&
            lib->bind("PQdb", f->db) && lib->bind("PQuser", f->user) && lib->bind("PQconninfoParse", f->conninfoParse) &&
            lib->bind("PQconninfoFree", f->conninfoFree) && lib->bind("PQsetNoticeProcessor", f->setNoticeProcessor) &&
            lib->bind("PQfreemem", f->freemem);
        return bound ? std::move(f) : nullptr;
    }();
    if (!loaded) throw PostgresError("08000", "cannot load libpq (libpq.so.5): install libpq5 to sync through PostgreSQL");
    return *loaded;
}

// libpq's messages end with a newline and may span lines; ours are one line.
std::string oneLine(const char* message) {
    std::string text = message ? message : "";
    for (char& c : text) {
        if (c == '\n' || c == '\r' || c == '\t') c = ' ';
    }
    while (!text.empty() && text.back() == ' ') text.pop_back();
    return text;
}

constexpr const char* kConnectionLost = "08006";
constexpr const char* kCannotConnect = "08001";

}  // namespace

struct PostgresConnection::Handle {
    PGconn* connection = nullptr;
    ~Handle() {
        if (connection) libpq().finish(connection);
    }
};

std::int64_t PostgresRows::integer(std::size_t row, std::size_t column) const {
    const std::string value = text(row, column);
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), number);
    if (error != std::errc() || end != value.data() + value.size()) {
        throw PostgresError("22000", "expected an integer from the server, got \"" + value + "\"");
    }
    return number;
}

PostgresConnection PostgresConnection::open(const std::string& connectionString) {
    const Libpq& pq = libpq();
    // Earlier keywords are defaults that the expanded string overrides.
    const char* keywords[] = {"connect_timeout", "application_name", "dbname", nullptr};
    const char* values[] = {"10", "gaugepoint", connectionString.c_str(), nullptr};
    auto handle = std::make_shared<Handle>();
    handle->connection = pq.connectdbParams(keywords, values, 1);
    if (!handle->connection) throw PostgresError(kConnectionLost, "cannot connect to PostgreSQL: out of memory");
    if (pq.status(handle->connection) != CONNECTION_OK) {
        throw PostgresError(kCannotConnect, "cannot connect to PostgreSQL: " + oneLine(pq.errorMessage(handle->connection)));
    }
    // "relation already exists, skipping" and other notices are not the user's business.
    pq.setNoticeProcessor(handle->connection, [](void*, const char*) {}, nullptr);
    return PostgresConnection{std::move(handle)};
}

namespace {

// Throws the failure `result` reports, if any.
void check(const Libpq& pq, PGconn* connection, PGresult* result) {
    const ExecStatusType status = result ? pq.resultStatus(result) : PGRES_FATAL_ERROR;
    if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK) return;
    const char* state = result ? pq.resultErrorField(result, PG_DIAG_SQLSTATE) : nullptr;
    const bool lost = pq.status(connection) != CONNECTION_OK;
    const char* message = result ? pq.resultErrorMessage(result) : pq.errorMessage(connection);
    throw PostgresError(state && !lost ? state : kConnectionLost, "PostgreSQL: " + oneLine(message));
}

}  // namespace

void PostgresConnection::executeScript(const char* sql) {
    const Libpq& pq = libpq();
    PGresult* result = pq.exec(handle_->connection, sql);
    const std::unique_ptr<PGresult, decltype(pq.clear)> owned{result, pq.clear};
    check(pq, handle_->connection, result);
}

PostgresRows PostgresConnection::execute(const char* sql, const PostgresParameters& parameters) {
    const Libpq& pq = libpq();
    std::vector<const char*> values;
    values.reserve(parameters.size());
    for (const auto& p : parameters) values.push_back(p ? p->c_str() : nullptr);
    PGresult* result = pq.execParams(handle_->connection, sql, int(values.size()), nullptr, values.data(), nullptr,
                                     nullptr, 0);
    const std::unique_ptr<PGresult, decltype(pq.clear)> owned{result, pq.clear};
    check(pq, handle_->connection, result);
    PostgresRows rows;
    const int count = pq.ntuples(result), columns = pq.nfields(result);
    rows.rows_.resize(std::size_t(count));
    for (int r = 0; r < count; ++r) {
        auto& row = rows.rows_[std::size_t(r)];
        row.reserve(std::size_t(columns));
        for (int c = 0; c < columns; ++c) {
            if (pq.getisnull(result, r, c)) {
                row.emplace_back();
            } else {
                row.emplace_back(std::string(pq.getvalue(result, r, c), std::size_t(pq.getlength(result, r, c))));
            }
        }
    }
    return rows;
}

void PostgresConnection::rollbackQuietly() noexcept {
    try {
        execute("ROLLBACK");
    } catch (...) {
    }
}

std::string PostgresConnection::description() const {
    const Libpq& pq = libpq();
    PGconn* c = handle_->connection;
    const auto text = [](const char* value) { return std::string(value ? value : ""); };
    return text(pq.user(c)) + "@" + text(pq.host(c)) + ":" + text(pq.port(c)) + "/" + text(pq.db(c));
}

bool PostgresConnection::hasPassword(const std::string& connectionString) {
    const Libpq& pq = libpq();
    char* error = nullptr;
    PQconninfoOption* options = pq.conninfoParse(connectionString.c_str(), &error);
    if (!options) {
        const std::string reason = oneLine(error);
        if (error) pq.freemem(error);
        throw PostgresError("08000", "not a PostgreSQL connection string: " + reason);
    }
    bool password = false;
    for (PQconninfoOption* o = options; o->keyword; ++o) {
        if (std::string_view(o->keyword) == "password" && o->val && *o->val) password = true;
    }
    pq.conninfoFree(options);
    return password;
}

std::string postgresArray(const std::vector<std::optional<std::string>>& values) {
    std::string text = "{";
    for (const auto& value : values) {
        if (text.size() > 1) text += ',';
        if (!value) {
            text += "NULL";
            continue;
        }
        text += '"';
        for (const char c : *value) {
            if (c == '"' || c == '\\') text += '\\';
            text += c;
        }
        text += '"';
    }
    return text + "}";
}

}  // namespace gaugepoint
