#pragma once

// A coding session as the catalogue lists it, per-model and per-tool summaries, and aggregates
// of many sessions per day, week or month.

#include <boost/describe/class.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "gaugepoint/model/QuotaSessionMessage.hpp"
#include "gaugepoint/model/QuotaSessionModes.hpp"
#include "gaugepoint/model/QuotaSessionTokenUsage.hpp"

namespace gaugepoint {

// What one model did within a session or bucket. Also reads from the bare model identity
// {"id", "displayName"} that earlier documents list, as zero counts and no tokens.
struct QuotaSessionModelUsageSummary {
    std::string id;
    std::string displayName;
    std::int64_t sessionCount = 0;
    std::int64_t messageCount = 0;
    QuotaSessionTokenUsage tokenUsage;
    bool operator==(const QuotaSessionModelUsageSummary&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionModelUsageSummary, (), (id, displayName, sessionCount, messageCount, tokenUsage))

struct QuotaSessionToolUsageSummary {
    std::string id;
    std::string displayName;
    std::int64_t callCount = 0;
    std::int64_t errorCount = 0;
    bool operator==(const QuotaSessionToolUsageSummary&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionToolUsageSummary, (), (id, displayName, callCount, errorCount))

// One coding session, identified by (sourceID, id). `topModels` carries each model's usage, so a
// session can be priced per model.
struct QuotaSessionDescriptor {
    std::string id;
    std::string sourceID;
    std::string sourceName;
    QuotaSessionProviderIdentity provider;
    std::optional<std::string> projectPath;
    std::string title;
    std::optional<Date> startedAt;
    std::optional<Date> endedAt;
    std::int64_t messageCount = 0;
    std::int64_t promptCount = 0;
    QuotaSessionTokenUsage tokenUsage;
    std::vector<QuotaSessionModelUsageSummary> topModels;
    QuotaSessionSyncMode syncMode = QuotaSessionSyncMode::lite;
    std::optional<Date> transcriptUpdatedAt;
    bool operator==(const QuotaSessionDescriptor&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionDescriptor, (),
                      (id, sourceID, sourceName, provider, projectPath, title, startedAt, endedAt, messageCount,
                       promptCount, tokenUsage, topModels, syncMode, transcriptUpdatedAt))

// The sessions of one source and provider within one day, week or month.
struct QuotaSessionAggregateSnapshot {
    std::string id;
    std::string sourceID;
    std::string sourceName;
    QuotaSessionProviderIdentity provider;
    Date bucketStart;
    QuotaSessionGranularity granularity = QuotaSessionGranularity::day;
    std::int64_t sessionCount = 0;
    std::int64_t promptCount = 0;
    std::int64_t messageCount = 0;
    QuotaSessionTokenUsage tokenUsage;
    std::vector<QuotaSessionModelUsageSummary> modelUsage;
    std::vector<QuotaSessionToolUsageSummary> toolUsage;
    bool operator==(const QuotaSessionAggregateSnapshot&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionAggregateSnapshot, (),
                      (id, sourceID, sourceName, provider, bucketStart, granularity, sessionCount, promptCount,
                       messageCount, tokenUsage, modelUsage, toolUsage))

}  // namespace gaugepoint

// Lists and counts that a document may leave out read as empty or zero; the sync mode reads as
// "lite", the catalogue's default.
template <>
struct gaugepoint::json::AbsentKeys<gaugepoint::QuotaSessionModelUsageSummary> {
    static constexpr std::string_view keys[] = {"sessionCount", "messageCount", "tokenUsage"};
};
template <>
struct gaugepoint::json::AbsentKeys<gaugepoint::QuotaSessionToolUsageSummary> {
    static constexpr std::string_view keys[] = {"errorCount"};
};
template <>
struct gaugepoint::json::AbsentKeys<gaugepoint::QuotaSessionDescriptor> {
    static constexpr std::string_view keys[] = {"topModels", "syncMode"};
};
template <>
struct gaugepoint::json::AbsentKeys<gaugepoint::QuotaSessionAggregateSnapshot> {
    static constexpr std::string_view keys[] = {"modelUsage", "toolUsage"};
};
