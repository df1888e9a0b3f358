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
    Slot& found = slot(sql, prepareLabel);
    if (!found.handedOut) {
        found.handedOut = true;
        handedOut_.push_back(&found);
    }
    Statement& statement = *found.statement;
    statement.reset();
    statement.setExecuteLabel(executeLabel);
    return statement;
}

void StatementCache::resetHandedOut() noexcept {
    for (Slot* slot : handedOut_) {
        slot->statement->reset();
        slot->handedOut = false;
    }
    handedOut_.clear();
}

StatementCache::Slot* StatementCache::borrow(const char* sql, std::string_view prepareLabel) {
    Slot& found = slot(sql, prepareLabel);
    if (found.inUse) return nullptr;
    found.inUse = true;
    return &found;
}

}  // namespace gaugepoint::sqlite
