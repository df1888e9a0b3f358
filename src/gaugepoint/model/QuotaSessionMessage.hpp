#pragma once

// One message of a coding session, with its token usage and tool calls.

#include <boost/describe/class.hpp>
#include <boost/describe/enum.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "gaugepoint/model/QuotaSessionTokenUsage.hpp"
#include "gaugepoint/platform/Date.hpp"

namespace gaugepoint {

enum class QuotaSessionRole { system, user, assistant, tool, toolResult, meta };
BOOST_DESCRIBE_ENUM(QuotaSessionRole, system, user, assistant, tool, toolResult, meta)

// Where a message's token figures came from: the provider's own counts, the growth of running
// totals, a session-level summary, or an estimate from the text.
enum class QuotaSessionTokenUsageSource { native, cumulativeDelta, sessionSummary, heuristicEstimate };
BOOST_DESCRIBE_ENUM(QuotaSessionTokenUsageSource, native, cumulativeDelta, sessionSummary, heuristicEstimate)

struct QuotaSessionProviderIdentity {
    std::string id;
    std::string displayName;
    bool operator==(const QuotaSessionProviderIdentity&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionProviderIdentity, (), (id, displayName))

struct QuotaSessionModelIdentity {
    std::string id;
    std::string displayName;
    bool operator==(const QuotaSessionModelIdentity&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionModelIdentity, (), (id, displayName))

struct QuotaSessionToolCall {
    std::string id;
    std::string name;
    std::optional<Date> timestamp;
    std::optional<std::string> inputSummary;
    std::optional<bool> isError;
    bool operator==(const QuotaSessionToolCall&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionToolCall, (), (id, name, timestamp, inputSummary, isError))

// Optional details of a message; times in seconds.
struct QuotaSessionMessageMetadata {
    std::optional<double> contextUsagePercentage;
    std::optional<double> timeToFirstChunk;
    std::optional<double> streamDuration;
    std::optional<double> assistantActiveTime;
    std::optional<std::int64_t> thinkingTokens;
    std::optional<QuotaSessionTokenUsageSource> tokenUsageSource;
    std::optional<std::string> tokenUsageEstimator;
    std::optional<std::string> reasoningEffort;
    std::optional<std::string> interactionMode;
    std::optional<std::string> autonomyLevel;
    std::optional<std::string> autonomyMode;
    std::optional<std::string> providerLock;
    std::optional<Date> providerLockTimestamp;
    bool operator==(const QuotaSessionMessageMetadata&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionMessageMetadata, (),
                      (contextUsagePercentage, timeToFirstChunk, streamDuration, assistantActiveTime, thinkingTokens,
                       tokenUsageSource, tokenUsageEstimator, reasoningEffort, interactionMode, autonomyLevel,
                       autonomyMode, providerLock, providerLockTimestamp))

struct QuotaSessionMessage {
    std::string id;
    QuotaSessionRole role = QuotaSessionRole::user;
    std::string text;
    std::optional<Date> timestamp;
    std::optional<QuotaSessionModelIdentity> model;
    std::optional<QuotaSessionTokenUsage> tokenUsage;
    std::vector<QuotaSessionToolCall> toolCalls;
    std::optional<QuotaSessionMessageMetadata> metadata;
    bool operator==(const QuotaSessionMessage&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionMessage, (), (id, role, text, timestamp, model, tokenUsage, toolCalls, metadata))

}  // namespace gaugepoint

template <>
struct gaugepoint::json::AbsentKeys<gaugepoint::QuotaSessionMessage> {
    static constexpr std::string_view keys[] = {"text", "toolCalls"};  // metadata-only captures keep no text
};
