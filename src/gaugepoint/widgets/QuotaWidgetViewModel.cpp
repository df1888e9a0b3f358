#include "gaugepoint/widgets/QuotaWidgetViewModel.hpp"

#include <algorithm>
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

std::int64_t noted(const std::map<std::string, std::int64_t>& tokens, const std::string& providerID) {
    const auto found = tokens.find(providerID);
    return found == tokens.end() ? 0 : found->second;
}

// "2.7M tokens · $5.01 in 30 days (220.2K unpriced)" or "… today …"; no cost when unknown.
std::string usagePhrase(std::int64_t tokens, std::optional<double> costUSD, std::int64_t unpricedTokens, bool today,
                        std::string_view language) {
    const std::string count = compactCount(tokens);
    const auto cost = QuotaFormatting::currency(costUSD, "USD", "en_US");
    const std::string unpriced = unpricedTokens > 0 ? compactCount(unpricedTokens) : "";
    if (isChineseLanguage(language)) {
        return std::string(today ? "今天 " : "30 天 ") + count + " 令牌" + (cost ? " · " + *cost : "") +
               (unpriced.empty() ? "" : "（" + unpriced + " 未计价）");
    }
    return count + " tokens" + (cost ? " · " + *cost : "") + (today ? " today" : " in 30 days") +
           (unpriced.empty() ? "" : " (" + unpriced + " unpriced)");
}

// The provider's usage of the day `today`, when it used anything that day.
const QuotaDailyTokenEntry* usedToday(const ProviderQuota& provider, const std::optional<std::string>& today) {
    if (!today || !provider.dailyTokenUsage) return nullptr;
    const auto& days = *provider.dailyTokenUsage;
    const auto day = std::find_if(days.begin(), days.end(), [&](const auto& d) { return d.dayKey == *today; });
    return day != days.end() && day->totalTokens > 0 ? &*day : nullptr;
}

std::string dayUsageText(const QuotaDailyTokenEntry& day, std::int64_t unpricedTokens, std::string_view language) {
    // A cost made only of tokens without a price is unknown, not $0.
    const bool nonePriced = unpricedTokens > 0 && unpricedTokens >= day.totalTokens;
    return usagePhrase(day.totalTokens, nonePriced ? std::nullopt : std::optional(day.costUSD), unpricedTokens, true,
                       language);
}

// A provider without windows shows its day; one with windows, or without use today (a line of
// zeros says nothing), its 30 days.
std::optional<std::string> usageText(const ProviderQuota& provider, const QuotaWidgetUsageNotes& notes,
                                     std::string_view language) {
    const auto& usage = provider.tokenUsage;
    if (!usage || !usage->last30DaysTokens) return std::nullopt;
    if (const auto* day = provider.hasQuotaWindows() ? nullptr : usedToday(provider, notes.today)) {
        return dayUsageText(*day, noted(notes.unpricedToday, provider.id), language);
    }
    return usagePhrase(*usage->last30DaysTokens, usage->last30DaysCostUSD, noted(notes.unpricedLast30Days, provider.id),
                       false, language);
}

QuotaWidgetProviderView providerView(const ProviderQuota& provider, Date generatedAt, Date now,
                                     std::string_view language, const QuotaFreshnessPolicy& policy,
                                     const QuotaWidgetUsageNotes& notes) {
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
    view.usageText = usageText(provider, notes, language);
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
                                      const QuotaFreshnessPolicy& policy, const QuotaWidgetUsageNotes& notes) {
    QuotaWidgetView view;
    view.generatedAt = snapshot.generatedAt;
    view.nextResetAt = snapshot.nextResetAt();
    view.language = std::string(language);
    view.providers.reserve(snapshot.providers.size());
    for (const auto& provider : snapshot.providers) {
        view.providers.push_back(providerView(provider, snapshot.generatedAt, now, language, policy, notes));
    }
    return view;
}

}  // namespace gaugepoint
