#include "gaugepoint/stores/SQLiteStatementCache.hpp"

namespace gaugepoint::sqlite {

Statement& StatementCache::get(const char* sql, std::string_view prepareLabel, std::string_view executeLabel) {
    auto& slot = statements_[sql];
    if (!slot) {
        slot = std::make_unique<Statement>(connection_, sql, prepareLabel, std::string(executeLabel));
    } else {
        slot->reset();
    }
    return *slot;
}

}  // namespace gaugepoint::sqlite
