#pragma once

#include <boost/describe/class.hpp>

#include <cstdint>
#include <optional>
#include <string_view>

#include "gaugepoint/platform/Json.hpp"

namespace gaugepoint {

// Tokens of one message, session or bucket. Counts are signed 64-bit; `exactCostUSD` is a cost
// the provider itself reported (US dollars), as against one estimated from prices.
struct QuotaSessionTokenUsage {
    std::int64_t inputTokens = 0;
    std::int64_t outputTokens = 0;
    std::int64_t cacheReadTokens = 0;
    std::int64_t cacheWriteTokens = 0;
    std::optional<double> exactCostUSD;

    // The sum of the four counts. A sum beyond int64 stops the program.
    std::int64_t totalTokens() const;

    // Adds the four counts of `other` (overflow stops the program); the exact costs add up, and
    // the sum is absent only when both are absent.
    QuotaSessionTokenUsage& operator+=(const QuotaSessionTokenUsage& other);

    bool operator==(const QuotaSessionTokenUsage&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionTokenUsage, (),
                      (inputTokens, outputTokens, cacheReadTokens, cacheWriteTokens, exactCostUSD))

}  // namespace gaugepoint

// A usage written by a tool that does not count cache tokens leaves those keys out.
template <>
struct gaugepoint::json::AbsentKeys<gaugepoint::QuotaSessionTokenUsage> {
    static constexpr std::string_view keys[] = {"inputTokens", "outputTokens", "cacheReadTokens", "cacheWriteTokens"};
};
