#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "gaugepoint/model/QuotaSessionCatalogRecords.hpp"
#include "gaugepoint/platform/Error.hpp"
#include "gaugepoint/platform/LocalCalendar.hpp"
#include "gaugepoint/stores/SQLiteStore.hpp"

namespace gaugepoint {

enum class QuotaSessionCatalogStoreErrorKind { missingAppGroupContainer, sqliteFailure, encodeFailure };

class QuotaSessionCatalogStoreError : public KindedError<QuotaSessionCatalogStoreErrorKind> {
public:
    static QuotaSessionCatalogStoreError missingAppGroupContainer(const std::string& identifier) {
        return {Kind::missingAppGroupContainer, "The App Group container is unavailable: " + identifier + "."};
    }
    static QuotaSessionCatalogStoreError sqliteFailure(const std::string& message) { return {Kind::sqliteFailure, message}; }
    static QuotaSessionCatalogStoreError encodeFailure(const std::string& message) { return {Kind::encodeFailure, message}; }

private:
    using KindedError::KindedError;
};

// The catalogue of coding sessions and their messages in "quota-session-catalog.sqlite": one
// descriptor per (source, session), stored whole as JSON beside the columns queries use, and
// the messages of each session in order. Serves paged lists, incremental exports with a
// watermark per device, time buckets and a storage summary.
//
// A value: copies share one connection; calls from any thread serialise on it, and the companion
// app may use the same file at the same time. Writes throw QuotaSessionCatalogStoreError; a
// stored descriptor that no longer decodes is left out of what reads return.
class QuotaSessionCatalogStore : public SQLiteStore<QuotaSessionCatalogStoreError> {
public:
    static constexpr std::string_view defaultFilename = "quota-session-catalog.sqlite";
    static constexpr std::string_view descriptorsTable = "session_descriptors";
    static constexpr std::string_view messagesTable = "session_messages";

    explicit QuotaSessionCatalogStore(QuotaSyncConfiguration configuration = QuotaSyncConfiguration::standard(),
                                      const std::optional<std::filesystem::path>& baseURLOverride = std::nullopt);

    // ---- descriptors ----

    // One page, latest ended first (then latest updated), of one source or of all. Throws.
    std::vector<QuotaSessionDescriptor> loadDescriptors(const std::optional<std::string>& sourceID, std::int64_t limit,
                                                        std::int64_t offset) const;
    std::int64_t totalCount(const std::optional<std::string>& sourceID = std::nullopt) const;
    std::vector<QuotaSessionDescriptor> loadAllDescriptors(const std::optional<std::string>& sourceID = std::nullopt) const;
    // One descriptor by identity; none when absent. Throws.
    std::optional<QuotaSessionDescriptor> loadDescriptor(std::string_view sourceID, std::string_view id) const;
    // The descriptors of `ids` of one source, in the order asked (none where there is none).
    std::vector<std::optional<QuotaSessionDescriptor>> loadDescriptorsByID(std::string_view sourceID,
                                                                         const std::vector<std::string>& ids) const;
    std::vector<QuotaSessionDescriptorKey> loadDescriptorRowIDs(const std::optional<std::string>& sourceID = std::nullopt) const;
    // Descriptors updated after `updatedAfter`, newest first, at most `limit`. Throws.
    std::vector<QuotaSessionDescriptor> descriptorsSince(Date updatedAfter, std::int64_t limit) const;
    std::optional<Date> latestDescriptorUpdatedAt(const std::optional<std::string>& sourceID = std::nullopt) const;
    std::map<std::string, std::int64_t> descriptorCountsBySourceID() const;

    // Writes descriptors under `sourceID` (which also becomes their sourceID), inserted and
    // updated now on the configuration's clock. A stored descriptor keeps its inserted_at, and
    // keeps its updated_at while its stored JSON is unchanged, so exports do not resend it.
    // Throws encodeFailure for a descriptor JSON cannot hold (or whose token total overflows).
    void upsert(const QuotaSessionDescriptor& descriptor, std::string_view sourceID) const;
    // The same for many, in one transaction.
    void upsertBatch(const std::vector<QuotaSessionDescriptor>& descriptors, std::string_view sourceID) const;
    // Makes `descriptors` the whole set of the source: upserts them and deletes the source's
    // other descriptors (all of them for an empty set), in one transaction; returns how many
    // were deleted. Throws.
    std::int64_t replaceDescriptorsForSource(std::string_view sourceID,
                                             const std::vector<QuotaSessionDescriptor>& descriptors) const;
    // Deletes descriptors by identity; returns how many went. Throws.
    std::int64_t removeDescriptors(const std::vector<QuotaSessionDescriptorKey>& keys) const;

    // ---- messages ----

    // One page of a session's messages in order. Throws.
    std::vector<PersistedSessionMessageRow> loadMessages(std::string_view sourceID, std::string_view sessionID,
                                                         std::int64_t limit, std::int64_t offset) const;
    std::int64_t messageCount(std::string_view sourceID, std::string_view sessionID) const;
    std::int64_t totalMessageCount() const;
    std::vector<std::string> loadMessageSessionIDs(const std::optional<std::string>& sourceID = std::nullopt) const;
    // Every message row of a session, with its insertion and update times. Throws.
    std::vector<PersistedSessionMessageRow> loadPersistedMessageRows(std::string_view sourceID,
                                                                     std::string_view sessionID) const;
    // Message rows updated after `updatedAfter`, oldest first, at most `limit`. Throws.
    std::vector<QuotaSessionMessageChange> messagesSince(Date updatedAfter, std::int64_t limit) const;

    // Replaces a session's messages, in one transaction: seq counts from 0 in the order given,
    // role is the role's name, text is absent when empty, model is the model id, token_count the
    // sum of the four counts; inserted and updated now. Throws.
    void replaceMessagesForSession(std::string_view sourceID, std::string_view sessionID,
                                   const std::vector<QuotaSessionMessage>& messages) const;
    // replaceMessagesForSession for many sessions of one source, in one transaction.
    void replaceMessagesForSessions(
        std::string_view sourceID,
        const std::vector<std::pair<std::string, std::vector<QuotaSessionMessage>>>& sessions) const;
    // Deletes the messages of these sessions; returns how many rows went. Throws.
    std::int64_t removeMessagesForSessions(std::string_view sourceID, const std::vector<std::string>& sessionIDs) const;

    // Messages with a timestamp at or after `since`, per hour or per day of `calendar`, oldest
    // bucket first. Throws.
    std::vector<QuotaSessionMessageBucket> messageHourBuckets(Date since, const std::optional<std::string>& sourceID,
                                                              const LocalCalendar& calendar) const;
    std::vector<QuotaSessionMessageBucket> messageDayBuckets(Date since, const std::optional<std::string>& sourceID,
                                                             const LocalCalendar& calendar) const;

    // Distinct (source, session) pairs among the messages, and those without a descriptor.
    std::int64_t countDistinctMessageSessions() const;
    std::int64_t countOrphanedMessageSessions() const;
    // Stored descriptors whose JSON no longer decodes.
    std::int64_t countUndecodableDescriptors() const;

    QuotaSessionCatalogStorageSummary storageSummary(const std::optional<std::string>& sourceID = std::nullopt) const;

    // ---- incremental export ----

    // The device's position in `tableName` ("session_descriptors" or "session_messages"); zero
    // when it has none. Throws.
    QuotaSessionSyncWatermark watermark(std::string_view deviceKey, std::string_view tableName) const;
    // The rows after the device's watermark in (updated_at, rowid) order, oldest first, at most
    // `limit`, with the watermark just after the last one. The stored watermark does not move:
    // call updateWatermark once the rows have really reached the device. Throws.
    QuotaSessionDescriptorExport exportIncrementalDescriptors(std::string_view deviceKey, std::int64_t limit) const;
    QuotaSessionMessageExport exportIncrementalMessages(std::string_view deviceKey, std::int64_t limit) const;
    void updateWatermark(std::string_view deviceKey, std::string_view tableName, const QuotaSessionSyncWatermark& mark) const;
    std::int64_t clearAllWatermarks() const;

    // ---- retention and clearing; each returns how many rows went ----

    std::int64_t trimMessagesOlderThan(double days) const;     // by message timestamp
    std::int64_t trimDescriptorsOlderThan(double days) const;  // by session end
    std::int64_t clearMessages() const;
    std::int64_t clearDescriptors() const;
    // Descriptors, messages and watermarks.
    std::int64_t clearAll() const;
    void walCheckpoint() const noexcept;
    // Changes how much of the file this process's connection maps into memory (PRAGMA
    // mmap_size), for bulk work that would otherwise keep every page it touched resident; the
    // set-up value is SQLiteConnectionHolder::memoryMapBytes. Throws like every operation.
    void setMemoryMapLimit(std::int64_t bytes) const;
    // After how many pages in the write-ahead log a commit copies it into the file (PRAGMA
    // wal_autocheckpoint; 1000 after set-up, 0 for only when walCheckpoint() asks). Throws like
    // every operation.
    void setAutoCheckpoint(int pages) const;

private:
    template <class Operation>
    auto runCatalog(Operation&& operation) const;
    std::vector<QuotaSessionMessageBucket> buckets(Date since, const std::optional<std::string>& sourceID,
                                                   const std::function<Date(Date)>& bucketStart,
                                                   const std::function<Date(Date)>& nextStart) const;
};

// Counts what the catalogue holds and what does not add up; repairs nothing.
class QuotaSessionCatalogIntegrityChecker {
public:
    struct Report {
        std::int64_t totalDescriptors = 0;
        std::int64_t totalMessageRows = 0;
        std::int64_t distinctMessageSessions = 0;
        std::int64_t orphanedMessageSessionCount = 0;
        std::map<std::string, std::int64_t> descriptorCountsBySource;
        // Message sessions without a descriptor, plus descriptors whose JSON no longer decodes.
        std::int64_t anomaliesFound = 0;
        std::int64_t elapsedMillis = 0;
    };

    explicit QuotaSessionCatalogIntegrityChecker(QuotaSessionCatalogStore catalogStore)
        : configuration(catalogStore.configuration()), catalogStore(std::move(catalogStore)) {}

    // Runs every count. Throws QuotaSessionCatalogStoreError.
    Report run() const;

    QuotaSyncConfiguration configuration;
    QuotaSessionCatalogStore catalogStore;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionCatalogIntegrityChecker::Report, (),
                      (totalDescriptors, totalMessageRows, distinctMessageSessions, orphanedMessageSessionCount,
                       descriptorCountsBySource, anomaliesFound, elapsedMillis))

}  // namespace gaugepoint
