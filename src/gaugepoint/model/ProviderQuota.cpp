#include "gaugepoint/model/ProviderQuota.hpp"

#include "gaugepoint/model/QuotaFormatting.hpp"
#include "gaugepoint/model/QuotaLanguagePreference.hpp"

namespace gaugepoint {

std::vector<QuotaWindow> sortedByImportance(std::vector<QuotaWindow> windows) {
    const auto before = [](const QuotaWindow& a, const QuotaWindow& b) {
        if (a.importance != b.importance) return a.importance < b.importance;
        return a.usedPercent > b.usedPercent;
    };
    for (std::size_t i = 1; i < windows.size(); ++i) {
        for (std::size_t j = i; j > 0 && before(windows[j], windows[j - 1]); --j) std::swap(windows[j], windows[j - 1]);
    }
    return windows;
}

std::optional<QuotaWindow> ProviderQuota::topWindow() const {
    if (windows.empty()) return std::nullopt;
    return sortedByImportance(windows).front();
}

std::string ProviderQuota::compatibilityStatusText() const {
    return compatibilityStatusText(QuotaLanguagePreference::system().resolvedLanguageCode());
}

std::string ProviderQuota::compatibilityStatusText(std::string_view language) const {
    const bool chinese = isChineseLanguage(language);
    const auto credits = QuotaFormatting::credits(creditsRemaining, language);
    const auto top = topWindow();
    if (!top) return credits ? *credits : (chinese ? "暂无额度数据" : "No quota data");
    const std::string remaining = QuotaFormatting::percent(top->remainingPercent());
    std::string text = chinese ? top->widgetLabel() + " 剩余 " + remaining : top->widgetLabel() + " " + remaining + " left";
    if (credits) text += " · " + *credits;
    return text;
}

std::string ProviderQuota::watchCompactSubtitle(std::string_view language) const {
    if (const auto top = topWindow()) {
        return QuotaFormatting::percent(top->remainingPercent()) + " · " + top->widgetLabel();
    }
    if (const auto credits = QuotaFormatting::credits(creditsRemaining, language)) return *credits;
    return "-";
}

}  // namespace gaugepoint
