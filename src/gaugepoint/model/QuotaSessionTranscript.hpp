#pragma once

// Transcripts of coding sessions as they are exported and synchronised: bundles of messages,
// the manifest of a transcript split into shards, and the envelope of several bundles.

#include <boost/describe/class.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "gaugepoint/model/QuotaSessionDescriptor.hpp"

namespace gaugepoint {

struct QuotaSessionDayBreakdown {
    Date bucketStart;
    std::int64_t promptCount = 0;
    std::int64_t messageCount = 0;
    QuotaSessionTokenUsage tokenUsage;
    std::vector<QuotaSessionModelUsageSummary> modelUsage;
    std::vector<QuotaSessionToolUsageSummary> toolUsage;
    bool operator==(const QuotaSessionDayBreakdown&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionDayBreakdown, (),
                      (bucketStart, promptCount, messageCount, tokenUsage, modelUsage, toolUsage))

struct QuotaSessionTranscriptSummary {
    std::optional<Date> startedAt;
    std::optional<Date> endedAt;
    std::int64_t messageCount = 0;
    std::int64_t promptCount = 0;
    QuotaSessionTokenUsage tokenUsage;
    std::vector<QuotaSessionModelUsageSummary> topModels;
    std::vector<QuotaSessionToolUsageSummary> toolUsage;
    std::vector<QuotaSessionDayBreakdown> dayBreakdowns;
    std::optional<std::string> lastModelID;
    bool operator==(const QuotaSessionTranscriptSummary&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionTranscriptSummary, (),
                      (startedAt, endedAt, messageCount, promptCount, tokenUsage, topModels, toolUsage, dayBreakdowns,
                       lastModelID))

struct QuotaSessionTranscriptBundle {
    std::string id;
    std::string sourceID;
    std::string sourceName;
    QuotaSessionProviderIdentity provider;
    std::string sessionTitle;
    std::optional<std::string> projectPath;
    QuotaSessionSyncMode syncMode = QuotaSessionSyncMode::lite;
    Date exportedAt;
    std::vector<QuotaSessionMessage> messages;
    bool operator==(const QuotaSessionTranscriptBundle&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionTranscriptBundle, (),
                      (id, sourceID, sourceName, provider, sessionTitle, projectPath, syncMode, exportedAt, messages))

// A transcript split into `shardCount` bundles, with the summary of the whole.
struct QuotaSessionTranscriptShardManifest {
    static constexpr std::int64_t currentVersion = 1;

    std::int64_t version = currentVersion;
    std::string id;
    std::string sourceID;
    std::string sourceName;
    QuotaSessionProviderIdentity provider;
    std::string sessionTitle;
    std::optional<std::string> projectPath;
    QuotaSessionSyncMode syncMode = QuotaSessionSyncMode::lite;
    Date exportedAt;
    QuotaSessionTranscriptSummary summary;
    std::int64_t shardCount = 0;
    bool operator==(const QuotaSessionTranscriptShardManifest&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionTranscriptShardManifest, (),
                      (version, id, sourceID, sourceName, provider, sessionTitle, projectPath, syncMode, exportedAt,
                       summary, shardCount))

struct QuotaSessionTranscriptEnvelope {
    static constexpr std::int64_t currentVersion = 1;

    std::int64_t version = currentVersion;
    Date updatedAt;
    std::vector<QuotaSessionTranscriptBundle> bundles;
    bool operator==(const QuotaSessionTranscriptEnvelope&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionTranscriptEnvelope, (), (version, updatedAt, bundles))

}  // namespace gaugepoint

template <>
struct gaugepoint::json::AbsentKeys<gaugepoint::QuotaSessionDayBreakdown> {
    static constexpr std::string_view keys[] = {"modelUsage", "toolUsage"};
};
template <>
struct gaugepoint::json::AbsentKeys<gaugepoint::QuotaSessionTranscriptSummary> {
    static constexpr std::string_view keys[] = {"topModels", "toolUsage", "dayBreakdowns"};
};
template <>
struct gaugepoint::json::AbsentKeys<gaugepoint::QuotaSessionTranscriptBundle> {
    static constexpr std::string_view keys[] = {"syncMode", "messages"};
};
template <>
struct gaugepoint::json::AbsentKeys<gaugepoint::QuotaSessionTranscriptShardManifest> {
    static constexpr std::string_view keys[] = {"syncMode"};
};
template <>
struct gaugepoint::json::AbsentKeys<gaugepoint::QuotaSessionTranscriptEnvelope> {
    static constexpr std::string_view keys[] = {"bundles"};
};
