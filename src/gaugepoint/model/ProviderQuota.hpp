#pragma once

#include <boost/describe/class.hpp>
#include <boost/describe/enum.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "gaugepoint/model/QuotaWindow.hpp"

namespace gaugepoint {

// How a provider's quota is organised, which tells views how to lay it out.
enum class QuotaProviderStrategy { multiWindow, multiCategory, multiModel, singleWindow, creditsOnly, unknown };
BOOST_DESCRIBE_ENUM(QuotaProviderStrategy, multiWindow, multiCategory, multiModel, singleWindow, creditsOnly, unknown)

// Token and cost totals of a provider (US dollars, tokens).
struct QuotaTokenUsageSummary {
    std::optional<double> sessionCostUSD;
    std::optional<std::int64_t> sessionTokens;
    std::optional<double> last30DaysCostUSD;
    std::optional<std::int64_t> last30DaysTokens;

    bool operator==(const QuotaTokenUsageSummary&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaTokenUsageSummary, (), (sessionCostUSD, sessionTokens, last30DaysCostUSD, last30DaysTokens))

// One local calendar day ("yyyy-MM-dd") of token use and cost.
struct QuotaDailyTokenEntry {
    std::string dayKey;
    double costUSD = 0;
    std::int64_t totalTokens = 0;

    bool operator==(const QuotaDailyTokenEntry&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaDailyTokenEntry, (), (dayKey, costUSD, totalTokens))

// One provider of a snapshot with its windows, balance and usage.
struct ProviderQuota {
    std::string id;
    std::string displayName;
    std::optional<std::string> modelID;
    std::optional<std::string> modelDisplayName;
    std::optional<Date> updatedAt;
    std::optional<double> creditsRemaining;
    std::vector<QuotaWindow> windows;
    QuotaProviderStrategy quotaStrategy = QuotaProviderStrategy::unknown;
    std::optional<QuotaTokenUsageSummary> tokenUsage;
    std::optional<std::vector<QuotaDailyTokenEntry>> dailyTokenUsage;

    bool hasQuotaWindows() const { return !windows.empty(); }
    // The most important window: lowest importance, then fullest; ties keep stored order.
    std::optional<QuotaWindow> topWindow() const;
    // One status line ("5h 58% left · Credits 12"), in the system language or `language`.
    std::string compatibilityStatusText() const;
    std::string compatibilityStatusText(std::string_view language) const;
    // The short subtitle of compact watch-face presentations ("58% · 5h").
    std::string watchCompactSubtitle(std::string_view language) const;

    bool operator==(const ProviderQuota&) const = default;
};
BOOST_DESCRIBE_STRUCT(ProviderQuota, (),
                      (id, displayName, modelID, modelDisplayName, updatedAt, creditsRemaining, windows, quotaStrategy,
                       tokenUsage, dailyTokenUsage))

// Windows in top-window order: importance ascending, then used percent descending; a stable
// insertion sort, so windows that tie keep their relative order.
std::vector<QuotaWindow> sortedByImportance(std::vector<QuotaWindow> windows);

}  // namespace gaugepoint

GAUGEPOINT_DECLARE_HASH(gaugepoint::QuotaTokenUsageSummary);
GAUGEPOINT_DECLARE_HASH(gaugepoint::QuotaDailyTokenEntry);
GAUGEPOINT_DECLARE_HASH(gaugepoint::ProviderQuota);
