#include "gaugepoint/widgets/QuotaWidgetViewModel.hpp"

#include <cstdio>

#include "gaugepoint/quota/QuotaReadingText.hpp"
#include "gaugepoint/widgets/QuotaProductCatalog.hpp"

namespace gaugepoint {
namespace {

using QuotaFormatting::ResetAbsoluteStyle;
using QuotaFormatting::ResetRelativeStyle;

QuotaWidgetWindowView windowView(const QuotaWindowNow& reading, Date now, std::string_view language) {
    const QuotaWindow& window = reading.window;
    QuotaWidgetWindowView view;
    view.id = window.id;
    view.semantic = window.semantic;
    view.label = window.widgetLabel();
    view.detailLabel = window.localizedLabel(language);
    view.reading = reading.estimated ? "estimated" : "official";
    view.usedPercent = window.usedPercent;
    view.usedText = QuotaFormatting::percent(window.usedPercent);
    view.remainingPercent = window.remainingPercent();
    view.remainingText = QuotaFormatting::percent(view.remainingPercent);
    view.progress = window.progress();
    view.resetsAt = window.resetsAt;
    view.resetText = QuotaFormatting::resetRelativeText(window.resetsAt, now, language, ResetRelativeStyle::standard);
    view.resetCompactText = QuotaFormatting::resetRelativeText(window.resetsAt, now, language, ResetRelativeStyle::compact);
    view.resetSummaryText = QuotaFormatting::resetSummaryText(window.resetsAt, now, language, ResetRelativeStyle::standard,
                                                              ResetAbsoluteStyle::timeOnly);
    if (reading.resetPassed) {
        view.resetPassed = true;
        view.resetText = view.resetSummaryText = QuotaReadingText::resetPassed(*window.resetsAt, now, language);
        view.resetCompactText = isChineseLanguage(language) ? "已重置" : "reset";
    }
    view.pace = reading.pace;
    view.paceText = QuotaReadingText::paceText(reading, language);
    return view;
}

// "950", "12.3K", "3.1M", "1.2B": token counts for a status bar.
std::string compactCount(std::int64_t count) {
    const double value = double(count);
    char text[32];
    if (count < 1000) {
        std::snprintf(text, sizeof text, "%lld", static_cast<long long>(count));
    } else if (count < 999'950) {
        std::snprintf(text, sizeof text, "%.1fK", value / 1e3);
    } else if (count < 999'950'000) {
        std::snprintf(text, sizeof text, "%.1fM", value / 1e6);
    } else {
        std::snprintf(text, sizeof text, "%.1fB", value / 1e9);
    }
    return text;
}

std::optional<std::string> usageText(const std::optional<QuotaTokenUsageSummary>& usage, std::int64_t unpricedTokens,
                                     std::string_view language) {
    if (!usage || !usage->last30DaysTokens) return std::nullopt;
    const std::string tokens = compactCount(*usage->last30DaysTokens);
    const auto cost = QuotaFormatting::currency(usage->last30DaysCostUSD, "USD", "en_US");
    const std::string unpriced = unpricedTokens > 0 ? compactCount(unpricedTokens) : "";
    if (isChineseLanguage(language)) {
        return "30 天 " + tokens + " 令牌" + (cost ? " · " + *cost : "") + (unpriced.empty() ? "" : "（" + unpriced + " 未计价）");
    }
    return tokens + " tokens" + (cost ? " · " + *cost : "") + " in 30 days" + (unpriced.empty() ? "" : " (" + unpriced + " unpriced)");
}

QuotaWidgetProviderView providerView(const ProviderQuota& provider, Date generatedAt, Date now,
                                     std::string_view language, const QuotaFreshnessPolicy& policy,
                                     std::int64_t unpricedTokens) {
    const QuotaProviderNow reading = quotaProviderNow(provider, generatedAt, now, policy);
    QuotaWidgetProviderView view;
    view.id = provider.id;
    view.displayName = provider.displayName;
    view.quotaStrategy = provider.quotaStrategy;
    view.status = provider.compatibilityStatusText(language);
    view.creditsText = QuotaFormatting::credits(provider.creditsRemaining, language);
    if (QuotaProductCatalog::creditsAreUSD(provider.id)) {
        view.balanceText = QuotaFormatting::balance(provider.creditsRemaining, "USD", language);
    }
    view.usageText = usageText(provider.tokenUsage, unpricedTokens, language);
    if (const auto top = provider.topWindow()) view.topWindowID = top->id;
    if (const auto* headline = reading.constraining()) view.headlineWindowID = headline->window.id;
    view.observedAt = reading.observedAt;
    view.ageSeconds = std::int64_t(reading.ageSeconds);
    view.stale = reading.stale;
    if (reading.stale) view.ageText = QuotaReadingText::asOf(reading.ageSeconds, language);
    view.windows.reserve(reading.windows.size());
    for (const auto& window : reading.windows) view.windows.push_back(windowView(window, now, language));
    return view;
}

}  // namespace

QuotaWidgetView QuotaWidgetView::make(const QuotaSnapshot& snapshot, Date now, std::string_view language,
                                      const QuotaFreshnessPolicy& policy,
                                      const std::map<std::string, std::int64_t>& unpricedTokens) {
    QuotaWidgetView view;
    view.generatedAt = snapshot.generatedAt;
    view.nextResetAt = snapshot.nextResetAt();
    view.language = std::string(language);
    view.providers.reserve(snapshot.providers.size());
    for (const auto& provider : snapshot.providers) {
        const auto unpriced = unpricedTokens.find(provider.id);
        view.providers.push_back(providerView(provider, snapshot.generatedAt, now, language, policy,
                                              unpriced == unpricedTokens.end() ? 0 : unpriced->second));
    }
    return view;
}

}  // namespace gaugepoint
