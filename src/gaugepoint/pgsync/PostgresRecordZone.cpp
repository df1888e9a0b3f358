#include "gaugepoint/pgsync/PostgresRecordZone.hpp"

#include <boost/json.hpp>

#include <set>

#include "gaugepoint/platform/Json.hpp"

namespace gaugepoint {
namespace {

constexpr const char* kSetup = R"sql(
SELECT pg_advisory_xact_lock(7265706, 0);
CREATE SCHEMA IF NOT EXISTS gaugepoint;
CREATE SEQUENCE IF NOT EXISTS gaugepoint.change_sequence;
CREATE TABLE IF NOT EXISTS gaugepoint.records (
    owner name NOT NULL DEFAULT current_user,
    zone_name text NOT NULL,
    record_name text NOT NULL,
    record_type text NOT NULL,
    fields jsonb NOT NULL,
    change_tag uuid NOT NULL DEFAULT gen_random_uuid(),
    change_sequence bigint NOT NULL DEFAULT nextval('gaugepoint.change_sequence'),
    modified_at timestamptz NOT NULL DEFAULT now(),
    PRIMARY KEY (owner, zone_name, record_name)
);
CREATE INDEX IF NOT EXISTS records_by_change ON gaugepoint.records (owner, zone_name, change_sequence);
CREATE TABLE IF NOT EXISTS gaugepoint.key_values (
    owner name NOT NULL DEFAULT current_user,
    key text NOT NULL,
    value jsonb NOT NULL,
    PRIMARY KEY (owner, key)
);
ALTER TABLE gaugepoint.records ENABLE ROW LEVEL SECURITY;
ALTER TABLE gaugepoint.records FORCE ROW LEVEL SECURITY;
ALTER TABLE gaugepoint.key_values ENABLE ROW LEVEL SECURITY;
ALTER TABLE gaugepoint.key_values FORCE ROW LEVEL SECURITY;
DO $$
BEGIN
    IF NOT EXISTS (SELECT 1 FROM pg_policies WHERE schemaname = 'gaugepoint' AND tablename = 'records'
                   AND policyname = 'own_rows') THEN
        CREATE POLICY own_rows ON gaugepoint.records USING (owner = current_user) WITH CHECK (owner = current_user);
    END IF;
    IF NOT EXISTS (SELECT 1 FROM pg_policies WHERE schemaname = 'gaugepoint' AND tablename = 'key_values'
                   AND policyname = 'own_rows') THEN
        CREATE POLICY own_rows ON gaugepoint.key_values USING (owner = current_user) WITH CHECK (owner = current_user);
    END IF;
END
$$;
GRANT USAGE ON SCHEMA gaugepoint TO PUBLIC;
GRANT SELECT, INSERT, UPDATE, DELETE ON gaugepoint.records, gaugepoint.key_values TO PUBLIC;
GRANT USAGE ON SEQUENCE gaugepoint.change_sequence TO PUBLIC;
)sql";

// One role's writes, one at a time (the lock ends with the transaction).
constexpr const char* kLockWrites = "SELECT pg_advisory_xact_lock(7265707, hashtext(current_user::text))";

// $1 names, $2 types, $3 the records' JSON documents, $4 expected tags (NULL: must be new), $5 zone.
constexpr const char* kWrite = R"sql(
WITH incoming AS (
    SELECT * FROM unnest($1::text[], $2::text[], $3::jsonb[], $4::uuid[]) AS t(record_name, record_type, document, expected_tag)
)
INSERT INTO gaugepoint.records AS r (zone_name, record_name, record_type, fields)
SELECT $5, i.record_name, i.record_type, i.document -> 'fields' FROM incoming i
ON CONFLICT (owner, zone_name, record_name) DO UPDATE
    SET record_type = excluded.record_type, fields = excluded.fields, change_tag = gen_random_uuid(),
        change_sequence = nextval('gaugepoint.change_sequence'), modified_at = now()
    WHERE r.change_tag = (SELECT i.expected_tag FROM incoming i WHERE i.record_name = excluded.record_name)
RETURNING r.record_name, r.change_tag::text, r.change_sequence
)sql";

// The record in its JSON form, assembled by the server, with its tag and sequence.
#define GP_RECORD_COLUMNS                                                                                  \
    "json_build_object('recordType', record_type, 'recordName', record_name, 'zoneName', zone_name, "   \
    "'ownerName', '__defaultOwner__', 'fields', fields)::text, change_tag::text, change_sequence"
constexpr const char* kChangesAfter =
    "SELECT " GP_RECORD_COLUMNS " FROM gaugepoint.records\n"
    "WHERE owner = current_user AND zone_name = $1 AND change_sequence > $2 ORDER BY change_sequence LIMIT $3";
constexpr const char* kReadMany =
    "SELECT " GP_RECORD_COLUMNS " FROM gaugepoint.records\n"
    "WHERE owner = current_user AND zone_name = $1 AND record_name = ANY($2::text[])";
#undef GP_RECORD_COLUMNS

std::vector<PostgresZoneRecord> recordsFrom(const PostgresRows& rows) {
    std::vector<PostgresZoneRecord> records;
    records.reserve(rows.size());
    for (std::size_t i = 0; i < rows.size(); ++i) {
        PostgresZoneRecord r;
        try {
            r.record = json::decode<QuotaCloudRecord>(rows.text(i, 0));
        } catch (const json::DecodingError&) {
            // Another program's row: keep its identity so a pull can count and pass over it.
            const auto document = boost::json::parse(rows.text(i, 0));
            r.record.recordType = std::string(document.at("recordType").as_string());
            r.record.recordID.recordName = std::string(document.at("recordName").as_string());
        }
        r.changeTag = rows.text(i, 1);
        r.changeSequence = rows.integer(i, 2);
        records.push_back(std::move(r));
    }
    return records;
}

}  // namespace

PostgresRecordZone::PostgresRecordZone(std::shared_ptr<PostgresConnection> connection, std::string zoneName)
    : connection_(std::move(connection)), zoneName_(std::move(zoneName)) {}

void PostgresRecordZone::setup(PostgresConnection& connection) {
    connection.inTransaction([&] { connection.executeScript(kSetup); });
}

std::vector<PostgresZoneWriteOutcome> PostgresRecordZone::write(const std::vector<PostgresZoneWrite>& writes) {
    if (writes.empty()) return {};
    std::vector<std::optional<std::string>> names, types, documents, tags;
    for (const auto& w : writes) {
        names.emplace_back(w.record.recordID.recordName);
        types.emplace_back(w.record.recordType);
        documents.emplace_back(json::encode(w.record));
        tags.push_back(w.expectedTag);
    }
    const std::string nameArray = postgresArray(names);
    return connection_->inTransaction([&] {
        connection_->execute(kLockWrites);
        const auto written = connection_->execute(
            kWrite, {nameArray, postgresArray(types), postgresArray(documents), postgresArray(tags), zoneName_});
        std::map<std::string, PostgresZoneWriteOutcome> outcomes;
        for (std::size_t i = 0; i < written.size(); ++i) {
            outcomes[written.text(i, 0)] = {written.text(i, 0), true, written.text(i, 1), written.integer(i, 2), {}};
        }
        std::vector<std::optional<std::string>> refused;
        for (const auto& name : names) {
            if (!outcomes.count(*name)) refused.push_back(name);
        }
        std::map<std::string, PostgresZoneRecord> current;
        if (!refused.empty()) {
            for (auto& r : recordsFrom(connection_->execute(kReadMany, {zoneName_, postgresArray(refused)}))) {
                current[r.record.recordID.recordName] = std::move(r);
            }
        }
        std::vector<PostgresZoneWriteOutcome> result;
        result.reserve(names.size());
        for (const auto& name : names) {
            if (auto found = outcomes.find(*name); found != outcomes.end()) {
                result.push_back(std::move(found->second));
            } else {
                PostgresZoneWriteOutcome outcome{*name, false, {}, 0, {}};
                if (auto copy = current.find(*name); copy != current.end()) outcome.current = std::move(copy->second);
                result.push_back(std::move(outcome));
            }
        }
        return result;
    });
}

std::vector<PostgresZoneRecord> PostgresRecordZone::changesAfter(std::int64_t changeSequence, std::int64_t limit) {
    return recordsFrom(connection_->execute(kChangesAfter, {zoneName_, std::to_string(changeSequence), std::to_string(limit)}));
}

std::optional<PostgresZoneRecord> PostgresRecordZone::read(const std::string& recordName) {
    auto records = recordsFrom(connection_->execute(kReadMany, {zoneName_, postgresArray({recordName})}));
    if (records.empty()) return std::nullopt;
    return std::move(records.front());
}

std::map<std::string, std::int64_t> PostgresRecordZone::countsByType() {
    const auto rows = connection_->execute(
        "SELECT record_type, count(*) FROM gaugepoint.records WHERE owner = current_user AND zone_name = $1 "
        "GROUP BY record_type",
        {zoneName_});
    std::map<std::string, std::int64_t> counts;
    for (std::size_t i = 0; i < rows.size(); ++i) counts[rows.text(i, 0)] = rows.integer(i, 1);
    return counts;
}

std::int64_t PostgresRecordZone::latestChangeSequence() {
    return connection_
        ->execute("SELECT coalesce(max(change_sequence), 0) FROM gaugepoint.records WHERE owner = current_user "
                  "AND zone_name = $1",
                  {zoneName_})
        .integer(0, 0);
}

std::optional<boost::json::value> PostgresKeyValueStore::value(std::string_view key) const {
    if (!values_) {
        const auto rows = connection_->execute(
            "SELECT key, value::text FROM gaugepoint.key_values WHERE owner = current_user");
        values_.emplace();
        for (std::size_t i = 0; i < rows.size(); ++i) values_->emplace(rows.text(i, 0), boost::json::parse(rows.text(i, 1)));
    }
    const auto found = values_->find(key);
    if (found == values_->end()) return std::nullopt;
    return found->second;
}

void PostgresKeyValueStore::setValue(std::string_view key, const boost::json::value& value) {
    connection_->execute(
        "INSERT INTO gaugepoint.key_values (key, value) VALUES ($1, $2::jsonb)\n"
        "ON CONFLICT (owner, key) DO UPDATE SET value = excluded.value",
        {std::string(key), boost::json::serialize(value)});
    if (values_) (*values_)[std::string(key)] = value;
}

void PostgresKeyValueStore::removeValue(std::string_view key) {
    connection_->execute("DELETE FROM gaugepoint.key_values WHERE owner = current_user AND key = $1", {std::string(key)});
    if (values_) values_->erase(std::string(key));
}

}  // namespace gaugepoint
