#pragma once

// Prepared statements kept for a run of work on one connection (a batch of writes, a long
// read), each prepared on first use instead of once per call.

#include <memory>
#include <string_view>
#include <unordered_map>

#include "gaugepoint/stores/SQLite.hpp"

namespace gaugepoint::sqlite {

class StatementCache {
public:
    explicit StatementCache(Connection connection) : connection_(connection) {}

    // The statement of `sql`, reset with its bindings cleared, prepared on first use. `sql` is
    // the key by address, so it must be a constant that outlives the cache. Throws Failure.
    Statement& get(const char* sql, std::string_view prepareLabel, std::string_view executeLabel);

    Connection& connection() { return connection_; }

private:
    Connection connection_;
    std::unordered_map<const char*, std::unique_ptr<Statement>> statements_;
};

}  // namespace gaugepoint::sqlite
