#pragma once

// What the session catalogue store hands out besides whole descriptors: message rows, changed
// rows for incremental export, time buckets and the storage summary. Times are seconds since
// 1970 where the store keeps them as such.

#include <boost/describe/class.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "gaugepoint/model/QuotaSessionDescriptor.hpp"
#include "gaugepoint/platform/Date.hpp"

namespace gaugepoint {

// One stored message of a session: its place, role, text (absent when not captured), time,
// model id and total token count.
struct PersistedSessionMessageRow {
    std::int64_t seq = 0;
    std::string role;
    std::optional<std::string> text;
    std::optional<double> timestamp;
    std::optional<std::string> model;
    std::int64_t tokenCount = 0;
    double insertedAt = 0;
    double updatedAt = 0;
    bool operator==(const PersistedSessionMessageRow&) const = default;
};
BOOST_DESCRIBE_STRUCT(PersistedSessionMessageRow, (),
                      (seq, role, text, timestamp, model, tokenCount, insertedAt, updatedAt))

// A message row changed since some moment, with the session it belongs to.
struct QuotaSessionMessageChange {
    std::int64_t rowID = 0;
    std::string sourceID;
    std::string sessionID;
    PersistedSessionMessageRow row;
    bool operator==(const QuotaSessionMessageChange&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionMessageChange, (), (rowID, sourceID, sessionID, row))

// How far one device has been sent one table: rows after (lastSyncAt, lastRowID) in
// (updated_at, rowid) order are new to it.
struct QuotaSessionSyncWatermark {
    double lastSyncAt = 0;
    std::int64_t lastRowID = 0;
    bool operator==(const QuotaSessionSyncWatermark&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionSyncWatermark, (), (lastSyncAt, lastRowID))

// One page of an incremental export and the watermark just after its last row (the one given
// when the page is empty).
struct QuotaSessionDescriptorExport {
    std::vector<QuotaSessionDescriptor> descriptors;
    QuotaSessionSyncWatermark watermark;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionDescriptorExport, (), (descriptors, watermark))

struct QuotaSessionMessageExport {
    std::vector<QuotaSessionMessageChange> messages;
    QuotaSessionSyncWatermark watermark;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionMessageExport, (), (messages, watermark))

// Messages per hour or day: how many, and of how many distinct sessions.
struct QuotaSessionMessageBucket {
    Date bucketStart;
    std::int64_t messageCount = 0;
    std::int64_t sessionCount = 0;
    bool operator==(const QuotaSessionMessageBucket&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionMessageBucket, (), (bucketStart, messageCount, sessionCount))

struct QuotaSessionCatalogStorageSummary {
    std::int64_t descriptorCount = 0;
    std::int64_t messageCount = 0;
    std::optional<Date> firstDescriptorInsertedAt;
    std::optional<Date> latestDescriptorInsertedAt;
    std::optional<Date> latestDescriptorUpdatedAt;
    std::optional<Date> firstMessageInsertedAt;
    std::optional<Date> latestMessageInsertedAt;
    std::optional<Date> latestMessageUpdatedAt;
    bool operator==(const QuotaSessionCatalogStorageSummary&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionCatalogStorageSummary, (),
                      (descriptorCount, messageCount, firstDescriptorInsertedAt, latestDescriptorInsertedAt,
                       latestDescriptorUpdatedAt, firstMessageInsertedAt, latestMessageInsertedAt,
                       latestMessageUpdatedAt))

// A descriptor's identity in the catalogue.
struct QuotaSessionDescriptorKey {
    std::string sourceID;
    std::string id;
    bool operator==(const QuotaSessionDescriptorKey&) const = default;
    auto operator<=>(const QuotaSessionDescriptorKey&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionDescriptorKey, (), (sourceID, id))

}  // namespace gaugepoint
