#include "gaugepoint/quota/QuotaReading.hpp"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "gaugepoint/model/QuotaReadingOrigin.hpp"

namespace gaugepoint {

QuotaFreshnessPolicy QuotaFreshnessPolicy::fromDefaults(const UserDefaults& defaults) {
    QuotaFreshnessPolicy policy;
    if (const auto value = defaults.value(staleAfterMinutesKey); value && value->is_number()) {
        const double minutes = value->to_number<double>();
        if (std::isfinite(minutes) && minutes > 0) policy.staleAfterSeconds = minutes * 60;
    }
    return policy;
}

QuotaWindowNow quotaWindowNow(const QuotaWindow& window, Date now) {
    QuotaWindowNow result;
    result.window = window;
    result.estimated = QuotaReadingOrigin::isEstimated(window);
    if (window.resetsAt && *window.resetsAt <= now) {
        result.resetPassed = true;
        result.window.usedPercent = 0;
        return result;
    }
    result.paceStatus = quotaPaceStatus(window, now);
    result.pace = quotaPace(window, now);
    return result;
}

QuotaProviderNow quotaProviderNow(const ProviderQuota& provider, Date generatedAt, Date now,
                                  const QuotaFreshnessPolicy& policy) {
    QuotaProviderNow result;
    result.observedAt = provider.updatedAt.value_or(generatedAt);
    result.ageSeconds = std::max(0.0, secondsSince1970(now) - secondsSince1970(result.observedAt));
    result.stale = result.ageSeconds > policy.staleAfterSeconds;
    result.windows.reserve(provider.windows.size());
    for (const auto& window : provider.windows) result.windows.push_back(quotaWindowNow(window, now));
    // Visit the windows in top-window order (importance, then fullest; stable), so that among
    // equally constrained windows the top one wins.
    std::vector<std::size_t> order(provider.windows.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        const auto &x = provider.windows[a], &y = provider.windows[b];
        return x.importance != y.importance ? x.importance < y.importance : x.usedPercent > y.usedPercent;
    });
    for (const std::size_t index : order) {
        const double remaining = result.windows[index].window.remainingPercent();
        if (!result.constrainingIndex || remaining < result.windows[*result.constrainingIndex].window.remainingPercent()) {
            result.constrainingIndex = index;
        }
    }
    return result;
}

}  // namespace gaugepoint
