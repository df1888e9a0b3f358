#pragma once

// Texts and JSON pieces the tools share. Token keys are those of the report documents
// (UsageReportJson), so an agent reads the same names everywhere.

#include <boost/json/value.hpp>

#include <cstdint>
#include <string>

#include "gaugepoint/reports/UsageTotals.hpp"

namespace gaugepoint::mcp {

// "1,234,567".
std::string groupedTokens(std::int64_t tokens);
// "$12.34"; under a cent but above zero "$0.0042", so a few tokens never read as free.
std::string dollars(double amount);
// "419,153 tokens, $1.23" with " (220,235 tokens without a price)" when some are unpriced.
std::string usageText(const UsageTotals& totals);
// {"inputTokens", "outputTokens", "cacheCreationTokens", "cacheReadTokens", "totalTokens",
//  "totalCost", "unpricedTokens", "modelsUsed"}
boost::json::object usageObject(const UsageTotals& totals);

}  // namespace gaugepoint::mcp
