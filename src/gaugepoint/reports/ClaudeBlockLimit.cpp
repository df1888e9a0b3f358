#include "gaugepoint/reports/ClaudeBlockLimit.hpp"

#include <algorithm>
#include <cmath>

namespace gaugepoint::ClaudeBlockLimit {
namespace {

constexpr double kLookBackDays = 60;
constexpr std::size_t kMinimumBlocks = 3;

}  // namespace

ClaudeBlockLimitSetting setting(const UserDefaults& defaults) {
    const auto value = defaults.value(userDefaultsKey);
    if (!value) return {};
    if (value->is_string()) return {std::nullopt, value->as_string() == "auto"};
    if (value->is_int64() && value->as_int64() > 0) return {value->as_int64(), false};
    return {};
}

void setSetting(UserDefaults& defaults, const ClaudeBlockLimitSetting& setting) {
    if (setting.automatic) {
        defaults.setValue(userDefaultsKey, boost::json::value("auto"));
    } else if (setting.tokens && *setting.tokens > 0) {
        defaults.setValue(userDefaultsKey, boost::json::value(*setting.tokens));
    } else {
        defaults.removeValue(userDefaultsKey);
    }
}

std::optional<std::int64_t> estimate(const std::vector<UsageBlock>& blocks, Date now) {
    const Date since = now - std::chrono::duration<double>(kLookBackDays * 86400);
    std::vector<std::int64_t> totals;
    for (const auto& block : blocks) {
        if (block.isActive || block.isGap || block.startTime < since) continue;
        totals.push_back(block.totals.tokens.totalTokens());
    }
    if (totals.empty()) return std::nullopt;
    const std::int64_t largest = *std::max_element(totals.begin(), totals.end());
    std::erase_if(totals, [largest](std::int64_t t) { return t <= 0 || 2 * t < largest; });
    if (totals.size() < kMinimumBlocks) return std::nullopt;
    std::sort(totals.begin(), totals.end());
    const auto rank = std::size_t(std::ceil(0.9 * double(totals.size())));  // nearest rank, 1-based
    return totals[std::clamp<std::size_t>(rank, 1, totals.size()) - 1];
}

std::optional<std::int64_t> resolve(const ClaudeBlockLimitSetting& setting, const QuotaUsageEntryStore& store, Date now) {
    if (setting.tokens) return setting.tokens;
    if (!setting.automatic) return std::nullopt;
    const Date since = now - std::chrono::duration<double>((kLookBackDays + 1) * 86400);
    return estimate(usageBlocks(store.countedEntries("claude", since, now), now), now);
}

}  // namespace gaugepoint::ClaudeBlockLimit
