#include "gaugepoint/stores/QuotaSessionCatalogStore.hpp"

#include <chrono>
#include <set>

#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/stores/QuotaSessionCatalogRows.hpp"
#include "gaugepoint/stores/QuotaSessionCatalogSchema.hpp"
#include "gaugepoint/stores/SnapshotBlob.hpp"

namespace gaugepoint {
namespace {

using namespace catalogrows;

constexpr const char* kUpsert =
    "INSERT INTO session_descriptors (\n    id,\n    source_id,\n    provider_id,\n    provider_name,\n"
    "    project_path,\n    title,\n    started_at,\n    ended_at,\n    message_count,\n    prompt_count,\n"
    "    total_tokens,\n    sync_mode,\n    inserted_at,\n    updated_at,\n    descriptor_data,\n"
    "    descriptor_encoding\n) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)\n"
    "ON CONFLICT(source_id, id) DO UPDATE SET\n"
    "    provider_id = excluded.provider_id,\n    provider_name = excluded.provider_name,\n"
    "    project_path = excluded.project_path,\n    title = excluded.title,\n"
    "    started_at = excluded.started_at,\n    ended_at = excluded.ended_at,\n"
    "    message_count = excluded.message_count,\n    prompt_count = excluded.prompt_count,\n"
    "    total_tokens = excluded.total_tokens,\n    sync_mode = excluded.sync_mode,\n"
    "    updated_at = CASE\n"
    "        WHEN session_descriptors.descriptor_data = excluded.descriptor_data\n"
    "         AND COALESCE(session_descriptors.descriptor_encoding, 'plain') = COALESCE(excluded.descriptor_encoding, 'plain')\n"
    "        THEN session_descriptors.updated_at\n"
    "        ELSE excluded.updated_at\n"
    "    END,\n"
    "    descriptor_data = excluded.descriptor_data,\n    descriptor_encoding = excluded.descriptor_encoding";

constexpr const char* kLoadPage =
    "SELECT descriptor_data, descriptor_encoding\nFROM session_descriptors\nORDER BY ended_at DESC, updated_at DESC\n"
    "LIMIT ?\nOFFSET ?";
constexpr const char* kLoadPageOfSource =
    "SELECT descriptor_data, descriptor_encoding\nFROM session_descriptors\nWHERE source_id = ?\n"
    "ORDER BY ended_at DESC, updated_at DESC\nLIMIT ?\nOFFSET ?";
constexpr const char* kLoadAll =
    "SELECT descriptor_data, descriptor_encoding\nFROM session_descriptors\nORDER BY ended_at DESC, updated_at DESC";
constexpr const char* kLoadAllOfSource =
    "SELECT descriptor_data, descriptor_encoding\nFROM session_descriptors\nWHERE source_id = ?\n"
    "ORDER BY ended_at DESC, updated_at DESC";
constexpr const char* kLoadOne =
    "SELECT descriptor_data, descriptor_encoding\nFROM session_descriptors\nWHERE source_id = ? AND id = ?";
constexpr const char* kCount = "SELECT COUNT(1) FROM session_descriptors";
constexpr const char* kCountOfSource = "SELECT COUNT(1) FROM session_descriptors WHERE source_id = ?";
constexpr const char* kRowIDs = "SELECT source_id, id FROM session_descriptors";
constexpr const char* kRowIDsOfSource = "SELECT source_id, id FROM session_descriptors WHERE source_id = ?";
constexpr const char* kDescriptorsSince =
    "SELECT descriptor_data, descriptor_encoding\nFROM session_descriptors\nWHERE updated_at > ?\n"
    "ORDER BY updated_at DESC\nLIMIT ?";
constexpr const char* kLatestUpdated = "SELECT MAX(updated_at) FROM session_descriptors";
constexpr const char* kLatestUpdatedOfSource = "SELECT MAX(updated_at) FROM session_descriptors WHERE source_id = ?";
constexpr const char* kCountsBySource = "SELECT source_id, COUNT(1) FROM session_descriptors GROUP BY source_id";
constexpr const char* kAllBlobs = "SELECT descriptor_data, descriptor_encoding FROM session_descriptors";

constexpr const char* kClearIncoming = "DELETE FROM incoming_descriptor_ids";
constexpr const char* kSeedIncoming = "INSERT OR IGNORE INTO incoming_descriptor_ids (id) VALUES (?)";
constexpr const char* kDeleteMissing =
    "DELETE FROM session_descriptors\nWHERE source_id = ?\n  AND id NOT IN (SELECT id FROM incoming_descriptor_ids)";
constexpr const char* kDeleteAllOfSource = "DELETE FROM session_descriptors WHERE source_id = ?";
constexpr const char* kRemoveDescriptor = "DELETE FROM session_descriptors WHERE source_id = ? AND id = ?";

constexpr const char* kLoadMessages =
    "SELECT seq, role, text, timestamp, model, token_count\nFROM session_messages\n"
    "WHERE source_id = ? AND session_id = ?\nORDER BY seq ASC\nLIMIT ?\nOFFSET ?";
constexpr const char* kMessageCount = "SELECT COUNT(1) FROM session_messages WHERE source_id = ? AND session_id = ?";
constexpr const char* kTotalMessages = "SELECT COUNT(*) FROM session_messages";
constexpr const char* kMessageSessions = "SELECT DISTINCT session_id FROM session_messages";
constexpr const char* kMessageSessionsOfSource = "SELECT DISTINCT session_id FROM session_messages WHERE source_id = ?";
constexpr const char* kPersistedRows =
    "SELECT seq, role, text, timestamp, model, token_count, inserted_at, updated_at\nFROM session_messages\n"
    "WHERE source_id = ? AND session_id = ?\nORDER BY seq ASC";
constexpr const char* kMessagesSince =
    "SELECT source_id, session_id, seq, role, text, timestamp, model, token_count, id, inserted_at, updated_at\n"
    "FROM session_messages\nWHERE updated_at > ?\nORDER BY updated_at ASC, id ASC\nLIMIT ?";
constexpr const char* kDeleteSessionMessages = "DELETE FROM session_messages WHERE source_id = ? AND session_id = ?";
constexpr const char* kInsertMessage =
    "INSERT INTO session_messages (\n    session_id,\n    source_id,\n    seq,\n    role,\n    text,\n"
    "    timestamp,\n    model,\n    token_count,\n    inserted_at,\n    updated_at\n"
    ") VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)";
constexpr const char* kBuckets = "SELECT source_id, session_id, timestamp\nFROM session_messages\nWHERE timestamp >= ?\n"
                                 "ORDER BY timestamp ASC";
constexpr const char* kBucketsOfSource =
    "SELECT source_id, session_id, timestamp\nFROM session_messages\nWHERE timestamp >= ? AND source_id = ?\n"
    "ORDER BY timestamp ASC";
constexpr const char* kDistinctMessageSessions =
    "SELECT COUNT(*) FROM (SELECT DISTINCT source_id, session_id FROM session_messages)";
constexpr const char* kOrphanedMessageSessions =
    "SELECT COUNT(*) FROM (\n    SELECT DISTINCT m.source_id, m.session_id\n    FROM session_messages m\n"
    "    LEFT JOIN session_descriptors d ON d.source_id = m.source_id AND d.id = m.session_id\n"
    "    WHERE d.id IS NULL\n)";

constexpr const char* kSummaryDescriptors =
    "SELECT COUNT(1), MIN(inserted_at), MAX(inserted_at), MAX(updated_at) FROM session_descriptors";
constexpr const char* kSummaryDescriptorsOfSource =
    "SELECT COUNT(1), MIN(inserted_at), MAX(inserted_at), MAX(updated_at) FROM session_descriptors WHERE source_id = ?";
constexpr const char* kSummaryMessages =
    "SELECT COUNT(1), MIN(inserted_at), MAX(inserted_at), MAX(updated_at) FROM session_messages";
constexpr const char* kSummaryMessagesOfSource =
    "SELECT COUNT(1), MIN(inserted_at), MAX(inserted_at), MAX(updated_at) FROM session_messages WHERE source_id = ?";

constexpr const char* kTrimMessages = "DELETE FROM session_messages WHERE timestamp < ?";
constexpr const char* kTrimDescriptors = "DELETE FROM session_descriptors WHERE ended_at < ?";
constexpr const char* kClearMessages = "DELETE FROM session_messages";
constexpr const char* kClearDescriptors = "DELETE FROM session_descriptors";

constexpr double kSecondsPerDay = 24 * 60 * 60;
const std::string kEncodeFailure = "Unable to encode session descriptor";

// ---- rows ----

std::vector<QuotaSessionDescriptor> readDescriptors(sqlite::Statement& select, int column = 0) {
    std::vector<QuotaSessionDescriptor> descriptors;
    while (select.step()) {
        if (auto d = decodeStoredJSON<QuotaSessionDescriptor>(select.blob(column), select.text(column + 1))) {
            descriptors.push_back(std::move(*d));
        }
    }
    return descriptors;
}

std::int64_t totalTokens(const QuotaSessionTokenUsage& usage) {
    std::int64_t sum = 0;
    for (const std::int64_t count : {usage.inputTokens, usage.outputTokens, usage.cacheReadTokens, usage.cacheWriteTokens}) {
        if (__builtin_add_overflow(sum, count, &sum)) throw QuotaSessionCatalogStoreError::encodeFailure(kEncodeFailure);
    }
    return sum;
}

// A descriptor as its row: the descriptor (written under `sourceID`), its JSON and its token
// total. The descriptor is only copied when its own sourceID has to change.
struct DescriptorRow {
    const QuotaSessionDescriptor* given = nullptr;
    std::optional<QuotaSessionDescriptor> resourced;
    std::string json;
    std::int64_t totalTokens = 0;

    const QuotaSessionDescriptor& descriptor() const { return resourced ? *resourced : *given; }
};

DescriptorRow descriptorRow(const QuotaSessionDescriptor& descriptor, std::string_view sourceID) {
    DescriptorRow row{&descriptor, std::nullopt, {}, totalTokens(descriptor.tokenUsage)};
    if (descriptor.sourceID != sourceID) {
        row.resourced = descriptor;
        row.resourced->sourceID = std::string(sourceID);
    }
    try {
        row.json = json::encode(row.descriptor());
    } catch (const json::EncodingError&) {
        throw QuotaSessionCatalogStoreError::encodeFailure(kEncodeFailure);
    }
    return row;
}

std::optional<std::string> nonEmpty(const std::string& text) {
    return text.empty() ? std::nullopt : std::optional(text);
}

void bindDescriptor(sqlite::Statement& upsert, const DescriptorRow& row, Date now) {
    const auto& d = row.descriptor();
    const std::span json(reinterpret_cast<const std::uint8_t*>(row.json.data()), row.json.size());
    upsert.bind(1, d.id).bind(2, d.sourceID).bind(3, d.provider.id).bind(4, nonEmpty(d.provider.displayName));
    upsert.bind(5, d.projectPath).bind(6, d.title);
    sqlite::bindDate(upsert, 7, d.startedAt);
    sqlite::bindDate(upsert, 8, d.endedAt);
    upsert.bind(9, d.messageCount).bind(10, d.promptCount).bind(11, row.totalTokens).bind(12, json::rawValue(d.syncMode));
    upsert.bind(13, secondsSince1970(now)).bind(14, secondsSince1970(now)).bindBlobInPlace(15, json).bind(16, "plain");
}

void upsertAll(sqlite::Connection& connection, const std::vector<DescriptorRow>& rows, Date now, std::string_view name) {
    sqlite::CachedStatement upsert{connection, kUpsert, "prepare " + std::string(name), "execute " + std::string(name)};
    for (const auto& row : rows) {
        upsert.reset();
        bindDescriptor(upsert, row, now);
        upsert.run();
    }
}

std::vector<DescriptorRow> descriptorRows(const std::vector<QuotaSessionDescriptor>& descriptors, std::string_view sourceID) {
    std::vector<DescriptorRow> rows;
    rows.reserve(descriptors.size());
    for (const auto& d : descriptors) rows.push_back(descriptorRow(d, sourceID));
    return rows;
}

std::int64_t countOf(sqlite::Connection& connection, const char* sql, std::string_view name,
                     const std::optional<std::string>& parameter = std::nullopt) {
    sqlite::CachedStatement count{connection, sql, "prepare " + std::string(name), "execute " + std::string(name)};
    if (parameter) count.bind(1, *parameter);
    return count.step() ? count.integer(0) : 0;
}

std::int64_t deleteBefore(sqlite::Connection& connection, const char* sql, std::string_view name, Date cutoff) {
    return sqlite::trimRows(connection, sql, secondsSince1970(cutoff), name);
}

}  // namespace

QuotaSessionCatalogStore::QuotaSessionCatalogStore(QuotaSyncConfiguration configuration,
                                                   const std::optional<std::filesystem::path>& baseURLOverride)
    : SQLiteStore(std::move(configuration), baseURLOverride, defaultFilename) {}

// ---- descriptors ----

std::vector<QuotaSessionDescriptor> QuotaSessionCatalogStore::loadDescriptors(const std::optional<std::string>& sourceID,
                                                                             std::int64_t limit, std::int64_t offset) const {
    return runCatalog([&](sqlite::Connection& connection) {
        sqlite::CachedStatement select{connection, sourceID ? kLoadPageOfSource : kLoadPage, "prepare loadDescriptors",
                                 "execute loadDescriptors"};
        const int first = sourceID ? 2 : 1;
        if (sourceID) select.bind(1, *sourceID);
        select.bind(first, limit).bind(first + 1, offset);
        return readDescriptors(select);
    });
}

std::int64_t QuotaSessionCatalogStore::totalCount(const std::optional<std::string>& sourceID) const {
    return runCatalog([&](sqlite::Connection& c) { return countOf(c, sourceID ? kCountOfSource : kCount, "totalCount", sourceID); });
}

std::vector<QuotaSessionDescriptor> QuotaSessionCatalogStore::loadAllDescriptors(const std::optional<std::string>& sourceID) const {
    return runCatalog([&](sqlite::Connection& connection) {
        sqlite::CachedStatement select{connection, sourceID ? kLoadAllOfSource : kLoadAll, "prepare loadAllDescriptors",
                                 "execute loadAllDescriptors"};
        if (sourceID) select.bind(1, *sourceID);
        return readDescriptors(select);
    });
}

std::optional<QuotaSessionDescriptor> QuotaSessionCatalogStore::loadDescriptor(std::string_view sourceID,
                                                                              std::string_view id) const {
    return runCatalog([&](sqlite::Connection& connection) -> std::optional<QuotaSessionDescriptor> {
        sqlite::CachedStatement select{connection, kLoadOne, "prepare loadDescriptor", "execute loadDescriptor"};
        select.bind(1, sourceID).bind(2, id);
        auto found = readDescriptors(select);
        if (found.empty()) return std::nullopt;
        return std::move(found.front());
    });
}

std::vector<std::optional<QuotaSessionDescriptor>> QuotaSessionCatalogStore::loadDescriptorsByID(
    std::string_view sourceID, const std::vector<std::string>& ids) const {
    return runCatalog([&](sqlite::Connection& connection) {
        const sqlite::ReadTransaction reads{connection};
        sqlite::CachedStatement select{connection, kLoadOne, "prepare loadDescriptor", "execute loadDescriptor"};
        std::vector<std::optional<QuotaSessionDescriptor>> descriptors;
        descriptors.reserve(ids.size());
        for (const auto& id : ids) {
            select.reset();
            select.bind(1, sourceID).bind(2, id);
            auto found = readDescriptors(select);
            descriptors.push_back(found.empty() ? std::nullopt : std::optional(std::move(found.front())));
        }
        return descriptors;
    });
}

std::vector<QuotaSessionDescriptorKey> QuotaSessionCatalogStore::loadDescriptorRowIDs(
    const std::optional<std::string>& sourceID) const {
    return runCatalog([&](sqlite::Connection& connection) {
        sqlite::CachedStatement select{connection, sourceID ? kRowIDsOfSource : kRowIDs, "prepare loadDescriptorRowIDs",
                                 "execute loadDescriptorRowIDs"};
        if (sourceID) select.bind(1, *sourceID);
        std::vector<QuotaSessionDescriptorKey> keys;
        while (select.step()) keys.push_back({std::string(select.text(0).value_or("")), std::string(select.text(1).value_or(""))});
        return keys;
    });
}

std::vector<QuotaSessionDescriptor> QuotaSessionCatalogStore::descriptorsSince(Date updatedAfter, std::int64_t limit) const {
    return runCatalog([&](sqlite::Connection& connection) {
        sqlite::CachedStatement select{connection, kDescriptorsSince, "prepare descriptorsSince", "execute descriptorsSince"};
        select.bind(1, secondsSince1970(updatedAfter)).bind(2, limit);
        return readDescriptors(select);
    });
}

std::optional<Date> QuotaSessionCatalogStore::latestDescriptorUpdatedAt(const std::optional<std::string>& sourceID) const {
    return runCatalog([&](sqlite::Connection& connection) -> std::optional<Date> {
        sqlite::CachedStatement select{connection, sourceID ? kLatestUpdatedOfSource : kLatestUpdated,
                                 "prepare latestDescriptorUpdatedAt", "execute latestDescriptorUpdatedAt"};
        if (sourceID) select.bind(1, *sourceID);
        return select.step() ? sqlite::optionalDate(select, 0) : std::nullopt;
    });
}

std::map<std::string, std::int64_t> QuotaSessionCatalogStore::descriptorCountsBySourceID() const {
    return runCatalog([](sqlite::Connection& connection) {
        sqlite::CachedStatement select{connection, kCountsBySource, "prepare descriptorCountsBySourceID",
                                 "execute descriptorCountsBySourceID"};
        std::map<std::string, std::int64_t> counts;
        while (select.step()) counts[std::string(select.text(0).value_or(""))] = select.integer(1);
        return counts;
    });
}

void QuotaSessionCatalogStore::upsert(const QuotaSessionDescriptor& descriptor, std::string_view sourceID) const {
    std::vector<DescriptorRow> rows;
    rows.push_back(descriptorRow(descriptor, sourceID));
    const Date now = configuration_.clock.now();
    runCatalog([&](sqlite::Connection& connection) { upsertAll(connection, rows, now, "upsert"); });
}

void QuotaSessionCatalogStore::upsertBatch(const std::vector<QuotaSessionDescriptor>& descriptors,
                                           std::string_view sourceID) const {
    const auto rows = descriptorRows(descriptors, sourceID);
    const Date now = configuration_.clock.now();
    runCatalog([&](sqlite::Connection& connection) {
        sqlite::Transaction transaction{connection, "upsertBatch"};
        upsertAll(connection, rows, now, "upsertBatch");
        transaction.commit();
    });
}

std::int64_t QuotaSessionCatalogStore::replaceDescriptorsForSource(std::string_view sourceID,
                                                                   const std::vector<QuotaSessionDescriptor>& descriptors) const {
    const auto rows = descriptorRows(descriptors, sourceID);
    const Date now = configuration_.clock.now();
    return runCatalog([&](sqlite::Connection& connection) {
        sqlite::Transaction transaction{connection, "replaceDescriptorsForSource"};
        std::int64_t removed = 0;
        if (rows.empty()) {
            sqlite::CachedStatement all{connection, kDeleteAllOfSource, "prepare deleteAllDescriptors", "execute deleteAllDescriptors"};
            all.bind(1, sourceID).run();
            removed = connection.changes();
        } else {
            connection.exec(kClearIncoming, "clear incoming_descriptor_ids");
            sqlite::CachedStatement seed{connection, kSeedIncoming, "prepare seed incoming_descriptor_ids", "seed incoming_descriptor_ids"};
            for (const auto& row : rows) {
                seed.reset();
                seed.bind(1, row.descriptor().id).run();
            }
            upsertAll(connection, rows, now, "replaceDescriptorsForSource upsert");
            sqlite::CachedStatement missing{connection, kDeleteMissing, "prepare deleteDescriptorsMissingFromIncomingSet",
                                      "execute deleteDescriptorsMissingFromIncomingSet"};
            missing.bind(1, sourceID).run();
            removed = connection.changes();
            connection.exec(kClearIncoming, "clear incoming_descriptor_ids");
        }
        transaction.commit();
        return removed;
    });
}

std::int64_t QuotaSessionCatalogStore::removeDescriptors(const std::vector<QuotaSessionDescriptorKey>& keys) const {
    return runCatalog([&](sqlite::Connection& connection) {
        sqlite::Transaction transaction{connection, "removeDescriptors"};
        sqlite::CachedStatement remove{connection, kRemoveDescriptor, "prepare removeDescriptors", "execute removeDescriptors"};
        std::int64_t removed = 0;
        for (const auto& key : keys) {
            remove.reset();
            remove.bind(1, key.sourceID).bind(2, key.id).run();
            removed += connection.changes();
        }
        transaction.commit();
        return removed;
    });
}

// ---- messages ----

std::vector<PersistedSessionMessageRow> QuotaSessionCatalogStore::loadMessages(std::string_view sourceID,
                                                                              std::string_view sessionID,
                                                                              std::int64_t limit,
                                                                              std::int64_t offset) const {
    return runCatalog([&](sqlite::Connection& connection) {
        sqlite::CachedStatement select{connection, kLoadMessages, "prepare loadMessages", "execute loadMessages"};
        select.bind(1, sourceID).bind(2, sessionID).bind(3, limit).bind(4, offset);
        std::vector<PersistedSessionMessageRow> rows;
        while (select.step()) rows.push_back(messageRow(select, 0, false));
        return rows;
    });
}

std::int64_t QuotaSessionCatalogStore::messageCount(std::string_view sourceID, std::string_view sessionID) const {
    return runCatalog([&](sqlite::Connection& connection) {
        sqlite::CachedStatement count{connection, kMessageCount, "prepare messageCount", "execute messageCount"};
        count.bind(1, sourceID).bind(2, sessionID);
        return count.step() ? count.integer(0) : 0;
    });
}

std::int64_t QuotaSessionCatalogStore::totalMessageCount() const {
    return runCatalog([](sqlite::Connection& c) { return countOf(c, kTotalMessages, "totalMessageCount"); });
}

std::vector<std::string> QuotaSessionCatalogStore::loadMessageSessionIDs(const std::optional<std::string>& sourceID) const {
    return runCatalog([&](sqlite::Connection& connection) {
        sqlite::CachedStatement select{connection, sourceID ? kMessageSessionsOfSource : kMessageSessions,
                                 "prepare loadMessageSessionIDs", "execute loadMessageSessionIDs"};
        if (sourceID) select.bind(1, *sourceID);
        std::vector<std::string> ids;
        while (select.step()) ids.emplace_back(select.text(0).value_or(""));
        return ids;
    });
}

std::vector<PersistedSessionMessageRow> QuotaSessionCatalogStore::loadPersistedMessageRows(std::string_view sourceID,
                                                                                          std::string_view sessionID) const {
    return runCatalog([&](sqlite::Connection& connection) {
        sqlite::CachedStatement select{connection, kPersistedRows, "prepare loadPersistedMessageRows",
                                 "execute loadPersistedMessageRows"};
        select.bind(1, sourceID).bind(2, sessionID);
        std::vector<PersistedSessionMessageRow> rows;
        while (select.step()) rows.push_back(messageRow(select, 0, true));
        return rows;
    });
}

std::vector<QuotaSessionMessageChange> QuotaSessionCatalogStore::messagesSince(Date updatedAfter, std::int64_t limit) const {
    return runCatalog([&](sqlite::Connection& connection) {
        sqlite::CachedStatement select{connection, kMessagesSince, "prepare messagesSince", "execute messagesSince"};
        select.bind(1, secondsSince1970(updatedAfter)).bind(2, limit);
        std::vector<QuotaSessionMessageChange> changes;
        while (select.step()) changes.push_back(messageChange(select));
        return changes;
    });
}

namespace {

void writeSessionMessages(sqlite::Connection& connection, std::string_view sourceID, std::string_view sessionID,
                          const std::vector<QuotaSessionMessage>& messages, double now) {
    sqlite::CachedStatement remove{connection, kDeleteSessionMessages, "prepare replaceMessagesForSession.delete",
                             "execute replaceMessagesForSession.delete"};
    remove.bind(1, sourceID).bind(2, sessionID).run();
    sqlite::CachedStatement insert{connection, kInsertMessage, "prepare replaceMessagesForSession.insert",
                             "execute replaceMessagesForSession.insert"};
    std::int64_t seq = 0;
    for (const auto& message : messages) {
        insert.reset();
        insert.bind(1, sessionID).bind(2, sourceID).bind(3, seq++).bind(4, json::rawValue(message.role));
        insert.bind(5, nonEmpty(message.text));
        sqlite::bindDate(insert, 6, message.timestamp);
        insert.bind(7, message.model ? std::optional(message.model->id) : std::nullopt);
        std::int64_t tokens = 0;
        if (message.tokenUsage) {
            try {
                tokens = totalTokens(*message.tokenUsage);
            } catch (const QuotaSessionCatalogStoreError&) {
                insert.fail("token counts of message " + message.id + " overflow");
            }
        }
        insert.bind(8, tokens).bind(9, now).bind(10, now).run();
    }
}

}  // namespace

void QuotaSessionCatalogStore::replaceMessagesForSession(std::string_view sourceID, std::string_view sessionID,
                                                         const std::vector<QuotaSessionMessage>& messages) const {
    const double now = secondsSince1970(configuration_.clock.now());
    runCatalog([&](sqlite::Connection& connection) {
        sqlite::Transaction transaction{connection, "replaceMessagesForSession"};
        writeSessionMessages(connection, sourceID, sessionID, messages, now);
        transaction.commit();
    });
}

void QuotaSessionCatalogStore::replaceMessagesForSessions(
    std::string_view sourceID, const std::vector<std::pair<std::string, std::vector<QuotaSessionMessage>>>& sessions) const {
    const double now = secondsSince1970(configuration_.clock.now());
    runCatalog([&](sqlite::Connection& connection) {
        sqlite::Transaction transaction{connection, "replaceMessagesForSession"};
        for (const auto& [sessionID, messages] : sessions) writeSessionMessages(connection, sourceID, sessionID, messages, now);
        transaction.commit();
    });
}

std::int64_t QuotaSessionCatalogStore::removeMessagesForSessions(std::string_view sourceID,
                                                                 const std::vector<std::string>& sessionIDs) const {
    return runCatalog([&](sqlite::Connection& connection) {
        sqlite::Transaction transaction{connection, "removeMessagesForSessions"};
        sqlite::CachedStatement remove{connection, kDeleteSessionMessages, "prepare removeMessagesForSessions",
                                 "execute removeMessagesForSessions"};
        std::int64_t removed = 0;
        for (const auto& id : sessionIDs) {
            remove.reset();
            remove.bind(1, sourceID).bind(2, id).run();
            removed += connection.changes();
        }
        transaction.commit();
        return removed;
    });
}

std::vector<QuotaSessionMessageBucket> QuotaSessionCatalogStore::buckets(Date since, const std::optional<std::string>& sourceID,
                                                                        const std::function<Date(Date)>& bucketStart,
                                                                        const std::function<Date(Date)>& nextStart) const {
    return runCatalog([&](sqlite::Connection& connection) {
        sqlite::CachedStatement select{connection, sourceID ? kBucketsOfSource : kBuckets, "prepare messageBuckets",
                                 "execute messageBuckets"};
        select.bind(1, secondsSince1970(since));
        if (sourceID) select.bind(2, *sourceID);
        std::vector<QuotaSessionMessageBucket> result;
        std::set<std::pair<std::string, std::string>> sessions;
        Date bucketEnd{};
        // Rows come in time order, so the calendar is asked once per bucket, not once per row.
        while (select.step()) {
            const Date time = dateFromSeconds(select.real(2));
            if (result.empty() || time >= bucketEnd) {
                const Date start = bucketStart(time);
                result.push_back({start, 0, 0});
                bucketEnd = nextStart(start);
                sessions.clear();
            }
            auto& bucket = result.back();
            ++bucket.messageCount;
            if (sessions.emplace(select.text(0).value_or(""), select.text(1).value_or("")).second) ++bucket.sessionCount;
        }
        return result;
    });
}

std::vector<QuotaSessionMessageBucket> QuotaSessionCatalogStore::messageHourBuckets(
    Date since, const std::optional<std::string>& sourceID, const LocalCalendar& calendar) const {
    return buckets(
        since, sourceID, [&](Date date) { return calendar.startOfHour(date); },
        [](Date start) { return start + std::chrono::hours(1); });
}

std::vector<QuotaSessionMessageBucket> QuotaSessionCatalogStore::messageDayBuckets(
    Date since, const std::optional<std::string>& sourceID, const LocalCalendar& calendar) const {
    // The next midnight, whether the day has 23, 24 or 25 hours.
    return buckets(
        since, sourceID, [&](Date date) { return calendar.startOfDay(date); },
        [&](Date start) { return calendar.startOfDay(calendar.addingDays(start, 1)); });
}

std::int64_t QuotaSessionCatalogStore::countDistinctMessageSessions() const {
    return runCatalog([](sqlite::Connection& c) { return countOf(c, kDistinctMessageSessions, "countDistinctMessageSessions"); });
}

std::int64_t QuotaSessionCatalogStore::countOrphanedMessageSessions() const {
    return runCatalog([](sqlite::Connection& c) { return countOf(c, kOrphanedMessageSessions, "countOrphanedMessageSessions"); });
}

std::int64_t QuotaSessionCatalogStore::countUndecodableDescriptors() const {
    return runCatalog([](sqlite::Connection& connection) {
        sqlite::CachedStatement select{connection, kAllBlobs, "prepare countUndecodableDescriptors",
                                 "execute countUndecodableDescriptors"};
        std::int64_t bad = 0;
        while (select.step()) {
            if (!decodeStoredJSON<QuotaSessionDescriptor>(select.blob(0), select.text(1))) ++bad;
        }
        return bad;
    });
}

QuotaSessionCatalogStorageSummary QuotaSessionCatalogStore::storageSummary(const std::optional<std::string>& sourceID) const {
    return runCatalog([&](sqlite::Connection& connection) {
        QuotaSessionCatalogStorageSummary summary;
        sqlite::CachedStatement descriptors{connection, sourceID ? kSummaryDescriptorsOfSource : kSummaryDescriptors,
                                      "prepare storageSummary descriptors", "execute storageSummary descriptors"};
        if (sourceID) descriptors.bind(1, *sourceID);
        if (descriptors.step()) {
            summary.descriptorCount = descriptors.integer(0);
            summary.firstDescriptorInsertedAt = sqlite::optionalDate(descriptors, 1);
            summary.latestDescriptorInsertedAt = sqlite::optionalDate(descriptors, 2);
            summary.latestDescriptorUpdatedAt = sqlite::optionalDate(descriptors, 3);
        }
        sqlite::CachedStatement messages{connection, sourceID ? kSummaryMessagesOfSource : kSummaryMessages,
                                   "prepare storageSummary messages", "execute storageSummary messages"};
        if (sourceID) messages.bind(1, *sourceID);
        if (messages.step()) {
            summary.messageCount = messages.integer(0);
            summary.firstMessageInsertedAt = sqlite::optionalDate(messages, 1);
            summary.latestMessageInsertedAt = sqlite::optionalDate(messages, 2);
            summary.latestMessageUpdatedAt = sqlite::optionalDate(messages, 3);
        }
        return summary;
    });
}

// ---- retention and clearing ----

std::int64_t QuotaSessionCatalogStore::trimMessagesOlderThan(double days) const {
    const Date cutoff = configuration_.clock.now() - std::chrono::duration<double>(days * kSecondsPerDay);
    return trimming(Trim::failsTheCall, [&] {
        return runCatalog([&](sqlite::Connection& c) { return deleteBefore(c, kTrimMessages, "trimMessagesOlderThan", cutoff); });
    });
}

std::int64_t QuotaSessionCatalogStore::trimDescriptorsOlderThan(double days) const {
    const Date cutoff = configuration_.clock.now() - std::chrono::duration<double>(days * kSecondsPerDay);
    return trimming(Trim::failsTheCall, [&] {
        return runCatalog([&](sqlite::Connection& c) { return deleteBefore(c, kTrimDescriptors, "trimDescriptorsOlderThan", cutoff); });
    });
}

std::int64_t QuotaSessionCatalogStore::clearMessages() const {
    return runCatalog([](sqlite::Connection& c) { return execute(c, kClearMessages, "clearMessages"); });
}

std::int64_t QuotaSessionCatalogStore::clearDescriptors() const {
    return runCatalog([](sqlite::Connection& c) { return execute(c, kClearDescriptors, "clearDescriptors"); });
}

std::int64_t QuotaSessionCatalogStore::clearAll() const {
    return runCatalog([](sqlite::Connection& connection) {
        sqlite::Transaction transaction{connection, "clearAll"};
        const std::int64_t removed = execute(connection, kClearDescriptors, "clearAll descriptors") +
                                     execute(connection, kClearMessages, "clearAll messages");
        clearWatermarks(connection);
        transaction.commit();
        return removed;
    });
}

void QuotaSessionCatalogStore::setMemoryMapLimit(std::int64_t bytes) const {
    const std::string sql = "PRAGMA mmap_size=" + std::to_string(bytes);
    runCatalog([&](sqlite::Connection& connection) { connection.exec(sql.c_str(), "set mmap size"); });
}

void QuotaSessionCatalogStore::setAutoCheckpoint(int pages) const {
    const std::string sql = "PRAGMA wal_autocheckpoint=" + std::to_string(pages);
    runCatalog([&](sqlite::Connection& connection) { connection.exec(sql.c_str(), "set autocheckpoint"); });
}

void QuotaSessionCatalogStore::walCheckpoint() const noexcept {
    try {
        runCatalog([](sqlite::Connection& connection) { connection.checkpointQuietly(SQLiteConnectionHolder::busyTimeout()); });
    } catch (...) {
    }
}

QuotaSessionCatalogIntegrityChecker::Report QuotaSessionCatalogIntegrityChecker::run() const {
    const auto start = std::chrono::steady_clock::now();
    Report report;
    report.totalDescriptors = catalogStore.totalCount();
    report.totalMessageRows = catalogStore.totalMessageCount();
    report.distinctMessageSessions = catalogStore.countDistinctMessageSessions();
    report.orphanedMessageSessionCount = catalogStore.countOrphanedMessageSessions();
    report.descriptorCountsBySource = catalogStore.descriptorCountsBySourceID();
    report.anomaliesFound = report.orphanedMessageSessionCount + catalogStore.countUndecodableDescriptors();
    report.elapsedMillis = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
    return report;
}

}  // namespace gaugepoint
