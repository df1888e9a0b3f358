// The catalogue's incremental export: pages of rows after a device's watermark, and the
// watermarks themselves.

#include "gaugepoint/stores/QuotaSessionCatalogRows.hpp"
#include "gaugepoint/stores/QuotaSessionCatalogSchema.hpp"
#include "gaugepoint/stores/SnapshotBlob.hpp"

namespace gaugepoint {
namespace {

using namespace catalogrows;

constexpr const char* kWatermark =
    "SELECT last_sync_at, last_row_id FROM sync_watermarks WHERE device_key = ? AND table_name = ?";
constexpr const char* kUpdateWatermark =
    "INSERT OR REPLACE INTO sync_watermarks (device_key, table_name, last_sync_at, last_row_id) VALUES (?, ?, ?, ?)";
// Rows after (last_sync_at, last_row_id): the first term keeps the scan on the updated_at index.
constexpr const char* kExportDescriptors =
    "SELECT rowid, updated_at, descriptor_data, descriptor_encoding\nFROM session_descriptors\n"
    "WHERE updated_at >= ? AND (updated_at > ? OR rowid > ?)\nORDER BY updated_at ASC, rowid ASC\nLIMIT ?";
constexpr const char* kExportMessages =
    "SELECT source_id, session_id, seq, role, text, timestamp, model, token_count, id, inserted_at, updated_at\n"
    "FROM session_messages\nWHERE updated_at >= ? AND (updated_at > ? OR id > ?)\n"
    "ORDER BY updated_at ASC, id ASC\nLIMIT ?";

QuotaSessionSyncWatermark readWatermark(sqlite::Connection& connection, std::string_view deviceKey,
                                        std::string_view tableName) {
    sqlite::CachedStatement select{connection, kWatermark, "prepare watermark", "execute watermark"};
    select.bind(1, deviceKey).bind(2, tableName);
    if (!select.step()) return {};
    return {select.real(0), select.integer(1)};
}

// Binds the watermark to an export statement: last_sync_at twice, then the row id and the limit.
void bindExport(sqlite::Statement& select, const QuotaSessionSyncWatermark& mark, std::int64_t limit) {
    select.bind(1, mark.lastSyncAt).bind(2, mark.lastSyncAt).bind(3, mark.lastRowID).bind(4, limit);
}

}  // namespace

namespace catalogrows {

std::int64_t clearWatermarks(sqlite::Connection& connection) {
    return execute(connection, "DELETE FROM sync_watermarks", "clear watermarks");
}

}  // namespace catalogrows

QuotaSessionSyncWatermark QuotaSessionCatalogStore::watermark(std::string_view deviceKey, std::string_view tableName) const {
    return runCatalog([&](sqlite::Connection& c) { return readWatermark(c, deviceKey, tableName); });
}

QuotaSessionDescriptorExport QuotaSessionCatalogStore::exportIncrementalDescriptors(std::string_view deviceKey,
                                                                                    std::int64_t limit) const {
    return runCatalog([&](sqlite::Connection& connection) {
        QuotaSessionDescriptorExport page;
        page.watermark = readWatermark(connection, deviceKey, descriptorsTable);
        sqlite::CachedStatement select{connection, kExportDescriptors, "prepare exportIncrementalDescriptors",
                                 "execute exportIncrementalDescriptors"};
        bindExport(select, page.watermark, limit);
        while (select.step()) {
            // The watermark passes a row that no longer decodes too, or it would block the export.
            page.watermark = {select.real(1), select.integer(0)};
            if (auto d = decodeStoredJSON<QuotaSessionDescriptor>(select.blob(2), select.text(3))) {
                page.descriptors.push_back(std::move(*d));
            }
        }
        return page;
    });
}

QuotaSessionMessageExport QuotaSessionCatalogStore::exportIncrementalMessages(std::string_view deviceKey,
                                                                              std::int64_t limit) const {
    return runCatalog([&](sqlite::Connection& connection) {
        QuotaSessionMessageExport page;
        page.watermark = readWatermark(connection, deviceKey, messagesTable);
        sqlite::CachedStatement select{connection, kExportMessages, "prepare exportIncrementalMessages",
                                 "execute exportIncrementalMessages"};
        bindExport(select, page.watermark, limit);
        while (select.step()) {
            page.messages.push_back(messageChange(select));
            page.watermark = {page.messages.back().row.updatedAt, page.messages.back().rowID};
        }
        return page;
    });
}

void QuotaSessionCatalogStore::updateWatermark(std::string_view deviceKey, std::string_view tableName,
                                               const QuotaSessionSyncWatermark& mark) const {
    runCatalog([&](sqlite::Connection& connection) {
        sqlite::CachedStatement update{connection, kUpdateWatermark, "prepare updateWatermark", "execute updateWatermark"};
        update.bind(1, deviceKey).bind(2, tableName).bind(3, mark.lastSyncAt).bind(4, mark.lastRowID).run();
    });
}

std::int64_t QuotaSessionCatalogStore::clearAllWatermarks() const {
    return runCatalog([](sqlite::Connection& c) { return clearWatermarks(c); });
}

}  // namespace gaugepoint
