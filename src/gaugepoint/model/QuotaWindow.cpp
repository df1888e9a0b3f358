#include "gaugepoint/model/QuotaWindow.hpp"

#include <algorithm>

#include "gaugepoint/model/QuotaFormatting.hpp"
#include "gaugepoint/model/QuotaLanguagePreference.hpp"
#include "gaugepoint/platform/Text.hpp"

namespace gaugepoint {

double QuotaWindow::progress() const { return std::clamp(usedPercent / 100.0, 0.0, 1.0); }

double QuotaWindow::remainingPercent() const { return std::max(100.0 - usedPercent, 0.0); }

std::string QuotaWindow::widgetLabel() const {
    if (modelSlug && !modelSlug->empty()) return *modelSlug;
    const std::string_view trimmedLabel = trimmed(label);
    const std::string minutesLabel = QuotaFormatting::windowLabel(windowMinutes);
    switch (semantic) {
        case QuotaWindowSemantic::usageCategory:
        case QuotaWindowSemantic::perModel:
        case QuotaWindowSemantic::creditsBalance: return label;
        case QuotaWindowSemantic::rollingSession:
        case QuotaWindowSemantic::fixedCycle:
            if (minutesLabel != "-") return minutesLabel;
            break;
        case QuotaWindowSemantic::generic: break;
    }
    return trimmedLabel.empty() ? minutesLabel : std::string(trimmedLabel);
}

std::string QuotaWindow::localizedLabel(std::string_view language) const {
    if (modelSlug && !modelSlug->empty()) return *modelSlug;
    const bool chinese = isChineseLanguage(language);
    switch (semantic) {
        case QuotaWindowSemantic::rollingSession:
            return (chinese ? "会话 " : "Session ") + QuotaFormatting::windowLabel(windowMinutes);
        case QuotaWindowSemantic::fixedCycle:
            return (chinese ? "周期 " : "Cycle ") + QuotaFormatting::windowLabel(windowMinutes);
        case QuotaWindowSemantic::usageCategory:
        case QuotaWindowSemantic::perModel: return label;
        case QuotaWindowSemantic::creditsBalance: return chinese ? "积分" : "Credits";
        case QuotaWindowSemantic::generic: break;
    }
    // A generic window reads as its trimmed label, else its length.
    const std::string_view trimmedLabel = trimmed(label);
    return trimmedLabel.empty() ? QuotaFormatting::windowLabel(windowMinutes) : std::string(trimmedLabel);
}

}  // namespace gaugepoint
