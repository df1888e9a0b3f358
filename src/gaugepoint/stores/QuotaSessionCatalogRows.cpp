#include "gaugepoint/stores/QuotaSessionCatalogRows.hpp"

#include <string>

namespace gaugepoint::catalogrows {

PersistedSessionMessageRow messageRow(const sqlite::Statement& row, int first, bool withTimes) {
    PersistedSessionMessageRow message;
    message.seq = row.integer(first);
    message.role = std::string(row.text(first + 1).value_or(""));
    message.text = sqlite::optionalText(row, first + 2);
    if (!row.isNull(first + 3)) message.timestamp = row.real(first + 3);
    message.model = sqlite::optionalText(row, first + 4);
    message.tokenCount = row.integer(first + 5);
    if (withTimes) {
        message.insertedAt = row.real(first + 6);
        message.updatedAt = row.real(first + 7);
    }
    return message;
}

QuotaSessionMessageChange messageChange(const sqlite::Statement& row) {
    QuotaSessionMessageChange change;
    change.sourceID = std::string(row.text(0).value_or(""));
    change.sessionID = std::string(row.text(1).value_or(""));
    change.row = messageRow(row, 2, false);
    change.rowID = row.integer(8);
    change.row.insertedAt = row.real(9);
    change.row.updatedAt = row.real(10);
    return change;
}

std::int64_t execute(sqlite::Connection& connection, const char* sql, std::string_view name) {
    sqlite::CachedStatement statement{connection, sql, "prepare " + std::string(name), "execute " + std::string(name)};
    statement.run();
    return connection.changes();
}


}  // namespace gaugepoint::catalogrows
