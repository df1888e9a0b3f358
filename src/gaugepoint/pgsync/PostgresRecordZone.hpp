#pragma once

// The same-account record zone kept in PostgreSQL, and the key-value store of the sync epoch
// beside it. Layout (schema "gaugepoint", made by setup()):
//   records     (owner, zone_name, record_name) → record_type, fields (the record's fields in
//               their JSON form, as jsonb), change_tag (a UUID that moves on every write),
//               change_sequence (from one sequence: the order in which pulls see writes)
//   key_values  (owner, key) → value (jsonb)
// Row-level security limits every role to the rows whose owner it is, the tables' owner too;
// a role can neither read another's rows nor write rows in its name.
//
// The writes of one role are serialised (a transaction-scoped advisory lock), so the change
// sequence of one role's rows grows in commit order and a pull that reads "after N" never
// misses a write that committed later with a smaller number.

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "gaugepoint/pgsync/PostgresConnection.hpp"
#include "gaugepoint/platform/UbiquitousKeyValueStore.hpp"
#include "gaugepoint/sync/QuotaCloudRecord.hpp"

namespace gaugepoint {

// A record as the server holds it.
struct PostgresZoneRecord {
    QuotaCloudRecord record;
    std::string changeTag;
    std::int64_t changeSequence = 0;
};

// A record to write, and the change tag its server copy must still have (none: the server must
// not have the record yet).
struct PostgresZoneWrite {
    QuotaCloudRecord record;
    std::optional<std::string> expectedTag;
};

// What a write came to: written (the new tag and sequence), or refused because the server's
// copy had moved on (`current`: that copy, none when it is gone).
struct PostgresZoneWriteOutcome {
    std::string recordName;
    bool written = false;
    std::string changeTag;
    std::int64_t changeSequence = 0;
    std::optional<PostgresZoneRecord> current;
};

class PostgresRecordZone {
public:
    // The zone `zoneName` of the connected role.
    PostgresRecordZone(std::shared_ptr<PostgresConnection> connection, std::string zoneName);

    // Creates the schema, tables, index, policies and grants that are missing; safe to run
    // again and from two machines at once. Needs the right to create a schema in the database.
    static void setup(PostgresConnection& connection);

    // Writes the records in one transaction: each one whose server copy still has its expected
    // tag; the others come back refused with the server's copy. Record names must be distinct.
    // Throws PostgresError (nothing is written then).
    std::vector<PostgresZoneWriteOutcome> write(const std::vector<PostgresZoneWrite>& writes);

    // The zone's records written after `changeSequence`, in sequence order, at most `limit`.
    // A row whose fields do not decode comes back with no fields. Throws PostgresError.
    std::vector<PostgresZoneRecord> changesAfter(std::int64_t changeSequence, std::int64_t limit);

    // One record by name; none when absent.
    std::optional<PostgresZoneRecord> read(const std::string& recordName);

    // How many records of each type the zone holds.
    std::map<std::string, std::int64_t> countsByType();
    // The largest change sequence of the zone (0 when empty).
    std::int64_t latestChangeSequence();

    PostgresConnection& connection() { return *connection_; }

private:
    std::shared_ptr<PostgresConnection> connection_;
    std::string zoneName_;
};

// The cloud key-value store of the sync epoch, as rows of the connected role. The first read
// fetches every key of the role in one statement (the epoch is three keys); writes go through
// at once and keep that copy current. Each call throws PostgresError when the server cannot be
// reached.
class PostgresKeyValueStore final : public UbiquitousKeyValueStore {
public:
    explicit PostgresKeyValueStore(std::shared_ptr<PostgresConnection> connection) : connection_(std::move(connection)) {}
    std::optional<boost::json::value> value(std::string_view key) const override;
    void setValue(std::string_view key, const boost::json::value& value) override;
    void removeValue(std::string_view key) override;

private:
    std::shared_ptr<PostgresConnection> connection_;
    mutable std::optional<std::map<std::string, boost::json::value, std::less<>>> values_;
};

}  // namespace gaugepoint
