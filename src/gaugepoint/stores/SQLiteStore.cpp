#include "gaugepoint/stores/SQLiteStore.hpp"

namespace gaugepoint {
namespace sqlite {

namespace {

template <class Cutoff>
std::int64_t deleteBefore(Connection& connection, const char* sql, const Cutoff& cutoff, std::string_view operation) {
    CachedStatement trim{connection, sql, operation};
    trim.bind(1, cutoff).run();
    return connection.changes();
}

}  // namespace

std::int64_t trimRows(Connection& connection, const char* sql, double cutoff, std::string_view operation) {
    return deleteBefore(connection, sql, cutoff, operation);
}

std::int64_t trimRows(Connection& connection, const char* sql, std::string_view cutoff, std::string_view operation) {
    return deleteBefore(connection, sql, cutoff, operation);
}

std::set<std::string> tableColumns(Connection& connection, std::string_view table, std::string_view label) {
    const std::string sql = "PRAGMA table_info(" + std::string(table) + ")";
    Statement info{connection, sql.c_str(), label, std::string(label)};
    std::set<std::string> columns;
    while (info.step()) {
        if (const auto name = info.text(1)) columns.emplace(*name);
    }
    return columns;
}

std::optional<std::string> optionalText(const Statement& row, int column) {
    const auto text = row.text(column);
    return text ? std::optional<std::string>(*text) : std::nullopt;
}

std::optional<Date> optionalDate(const Statement& row, int column) {
    if (row.isNull(column)) return std::nullopt;
    return dateFromSeconds(row.real(column));
}

void bindDate(Statement& statement, int index, const std::optional<Date>& date) {
    if (date) {
        statement.bind(index, secondsSince1970(*date));
    } else {
        statement.bindNull(index);
    }
}

}  // namespace sqlite

namespace {

void setMarker(const QuotaSyncConfiguration& configuration, std::string_view key) {
    try {
        configuration.userDefaults->setBool(key, true);
    } catch (const Error&) {
        // Without the marker the check runs again next time, and then finds the database.
    }
}

}  // namespace

bool LegacyMigration::beforeOpen(SQLiteConnectionHolder& holder, const QuotaSyncConfiguration& configuration,
                                 const std::filesystem::path& file, const std::function<bool()>& readLegacy) const {
    if (configuration.userDefaults->boolValue(markerKey)) return false;
    std::error_code error;
    // A file this process created for an import that then failed does not count as found.
    if (!holder.legacyImportPending && std::filesystem::exists(file, error)) {
        setMarker(configuration, markerKey);
        return false;
    }
    holder.legacyImportPending = readLegacy();
    if (!holder.legacyImportPending) setMarker(configuration, markerKey);
    return holder.legacyImportPending;
}

void LegacyMigration::finish(SQLiteConnectionHolder& holder, const QuotaSyncConfiguration& configuration) const {
    holder.legacyImportPending = false;
    setMarker(configuration, markerKey);
}

std::optional<std::filesystem::path> LegacyMigration::legacyFile(const QuotaSyncConfiguration& configuration,
                                                                 std::string_view name) {
    if (!configuration.ubiquityDirectory) return std::nullopt;
    const auto& base = *configuration.ubiquityDirectory;
    for (const auto& file : {base / "Documents" / name, base / name}) {
        std::error_code error;
        if (std::filesystem::is_regular_file(file, error)) return file;
    }
    return std::nullopt;
}

}  // namespace gaugepoint
