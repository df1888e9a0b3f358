#pragma once

// Prepared statements kept per connection, each prepared on first use instead of once per call:
// for a run of work (a batch of writes, a long read) or, owned by the connection holder, for the
// life of the connection (see CachedStatement). Not thread-safe: one cache belongs to one
// connection and is used under that connection's lock.

#include <memory>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "gaugepoint/stores/SQLite.hpp"

namespace gaugepoint::sqlite {

class StatementCache {
public:
    explicit StatementCache(Connection connection) : connection_(connection) {}
    // Finalizes every statement: a cache must end before its connection closes.
    ~StatementCache() = default;
    StatementCache(const StatementCache&) = delete;
    StatementCache& operator=(const StatementCache&) = delete;

    // The statement of `sql`, reset with its bindings cleared, prepared on first use and labelled
    // `executeLabel` for this use. `sql` is the key by address, so it must be a constant that
    // outlives the cache. Throws Failure. The caller resets it when done; the holder's cache
    // resets whatever get() handed out when its connection's lock is released.
    Statement& get(const char* sql, std::string_view prepareLabel, std::string_view executeLabel);
    // Resets every statement get() handed out since the last call (CachedStatement resets its
    // own), so none stays mid-read, holding a snapshot, between two holds of the lock.
    void resetHandedOut() noexcept;

    Connection& connection() { return connection_; }
    // Statements held (for tests).
    std::size_t size() const { return statements_.size(); }

private:
    friend class CachedStatement;
    struct Slot {
        std::unique_ptr<Statement> statement;
        bool inUse = false;       // lent to a CachedStatement
        bool handedOut = false;   // given by get() since the last resetHandedOut()
    };
    // The slot of `sql` marked in use, its statement prepared on first use; null while it is
    // already lent. Throws Failure(prepareLabel).
    Slot* borrow(const char* sql, std::string_view prepareLabel);
    Slot& slot(const char* sql, std::string_view prepareLabel);

    Connection connection_;
    std::unordered_map<const char*, Slot> statements_;  // nodes: a Slot never moves
    std::vector<Slot*> handedOut_;
};

}  // namespace gaugepoint::sqlite
