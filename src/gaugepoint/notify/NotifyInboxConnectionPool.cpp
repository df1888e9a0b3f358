#include "gaugepoint/notify/NotifyInboxConnectionPool.hpp"

namespace gaugepoint {

NotifyStmtCache::Lease NotifyStmtCache::statement(sqlite::Connection connection, const std::string& sql,
                                                  std::string_view operation) {
    if (connection.handle() != db_) {
        // A new connection (the side was opened again after a failed set-up): statements of the
        // old one cannot run on it.
        stmts_.clear();
        db_ = connection.handle();
    }
    auto& slot = stmts_[sql];
    if (!slot) {
        try {
            slot = std::make_unique<sqlite::Statement>(connection, sql.c_str(), operation);
        } catch (...) {
            stmts_.erase(sql);
            throw;
        }
    }
    return Lease{*slot};
}

NotifyInboxConnectionPool::NotifyInboxConnectionPool(std::filesystem::path dbURL, SQLiteStoreSetup schema)
    : dbURL_(std::move(dbURL)), setup_(std::move(schema)), write_(dbURL_), read_(dbURL_) {
    setup_.schemaScript = nullptr;
}

}  // namespace gaugepoint
