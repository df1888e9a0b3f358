#include "gaugepoint/mcp/McpFormatting.hpp"

#include <cstdio>

namespace gaugepoint::mcp {

std::string groupedTokens(std::int64_t tokens) {
    std::string digits = std::to_string(tokens < 0 ? -tokens : tokens);
    for (std::size_t i = digits.size(); i > 3; i -= 3) digits.insert(i - 3, ",");
    return (tokens < 0 ? "-" : "") + digits;
}

std::string dollars(double amount) {
    char text[48];
    std::snprintf(text, sizeof text, amount > 0 && amount < 0.01 ? "$%.4f" : "$%.2f", amount);
    return text;
}

std::string usageText(const UsageTotals& totals) {
    std::string text = groupedTokens(totals.tokens.totalTokens()) + " tokens, " + dollars(totals.totalCost);
    if (totals.unpricedTokens > 0) text += " (" + groupedTokens(totals.unpricedTokens) + " tokens without a price)";
    return text;
}

boost::json::object usageObject(const UsageTotals& totals) {
    boost::json::array models;
    for (const auto& model : totals.modelsUsed) models.emplace_back(model);
    return {{"inputTokens", totals.tokens.inputTokens},
            {"outputTokens", totals.tokens.outputTokens},
            {"cacheCreationTokens", totals.tokens.cacheWriteTokens},
            {"cacheReadTokens", totals.tokens.cacheReadTokens},
            {"totalTokens", totals.tokens.totalTokens()},
            {"totalCost", totals.totalCost},
            {"unpricedTokens", totals.unpricedTokens},
            {"modelsUsed", std::move(models)}};
}

}  // namespace gaugepoint::mcp
