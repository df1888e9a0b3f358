#pragma once

// Usage reports as JSON documents, with the keys the ecosystem's log analysers write, so that
// scripts written for those read these:
//   {"daily"|"weekly"|"monthly": [{"date"|"week"|"month", "inputTokens", "outputTokens",
//     "cacheCreationTokens", "cacheCreation1hTokens", "cacheReadTokens", "totalTokens", "totalCost",
//     "unpricedTokens",
//     "costSource", "modelsUsed", "modelBreakdowns": [{"modelName", the token keys, "cost"}]}],
//    "totals": {the token keys, "totalCost", "unpricedTokens", "costSource"}}
//   {"sessions": [{"sessionId", "provider", "projectPath", "lastActivity", ...}], "totals"}
//   {"blocks": [{"id", "startTime", "endTime", "actualEndTime", "isActive", "isGap", "entries",
//     "tokenCounts": {"inputTokens", "outputTokens", "cacheCreationInputTokens",
//     "cacheReadInputTokens"}, "totalTokens", "costUSD", "models", "burnRate", "projection"}]}
// "charges" ({"premiumRequests", "aiu", "credits"}, the non-zero ones) follows "costSource" in
// rows and totals whose tools charged in their own units; never US dollars.
// cacheCreation1hTokens is the part of the cache creation kept for an hour, already in it. Times are ISO
// 8601 with milliseconds in UTC; costs in US dollars.

#include <string>
#include <vector>

#include "gaugepoint/reports/UsageBlocks.hpp"
#include "gaugepoint/reports/UsagePeriods.hpp"

namespace gaugepoint::UsageReportJson {

std::string periods(const UsagePeriodReport& report, UsagePeriod period, bool pretty = true);
std::string sessions(const UsageSessionReport& report, bool pretty = true);
std::string blocks(const std::vector<UsageBlock>& blocks, bool pretty = true);

}  // namespace gaugepoint::UsageReportJson
