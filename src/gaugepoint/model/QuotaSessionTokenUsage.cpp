#include "gaugepoint/model/QuotaSessionTokenUsage.hpp"

#include "gaugepoint/platform/Fatal.hpp"

namespace gaugepoint {

std::int64_t QuotaSessionTokenUsage::totalTokens() const {
    return checkedAdd(checkedAdd(checkedAdd(inputTokens, outputTokens), cacheReadTokens), cacheWriteTokens);
}

QuotaSessionTokenUsage& QuotaSessionTokenUsage::operator+=(const QuotaSessionTokenUsage& other) {
    inputTokens = checkedAdd(inputTokens, other.inputTokens);
    outputTokens = checkedAdd(outputTokens, other.outputTokens);
    cacheReadTokens = checkedAdd(cacheReadTokens, other.cacheReadTokens);
    cacheWriteTokens = checkedAdd(cacheWriteTokens, other.cacheWriteTokens);
    if (other.exactCostUSD) exactCostUSD = exactCostUSD.value_or(0) + *other.exactCostUSD;
    return *this;
}

}  // namespace gaugepoint
