#include "gaugepoint/stores/SQLiteStatementCache.hpp"

namespace gaugepoint::sqlite {

StatementCache::Slot& StatementCache::slot(const char* sql, std::string_view prepareLabel) {
    auto& slot = statements_[sql];
    // The labels given to the constructor are replaced per use; a failed prepare leaves the slot
    // empty and the next use tries again.
    if (!slot.statement) slot.statement = std::make_unique<Statement>(connection_, sql, prepareLabel, std::string());
    return slot;
}

Statement& StatementCache::get(const char* sql, std::string_view prepareLabel, std::string_view executeLabel) {
    Statement& statement = *slot(sql, prepareLabel).statement;
    statement.reset();
    statement.setExecuteLabel(executeLabel);
    return statement;
}

StatementCache::Slot* StatementCache::borrow(const char* sql, std::string_view prepareLabel) {
    Slot& found = slot(sql, prepareLabel);
    if (found.inUse) return nullptr;
    found.inUse = true;
    return &found;
}

}  // namespace gaugepoint::sqlite
