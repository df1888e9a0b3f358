#pragma once

// What a widget shows for one snapshot at one moment: every text and number, ready to print.
// Its JSON form is the `gaugepoint widget --format json` document.

#include <boost/describe/class.hpp>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "gaugepoint/model/QuotaFormatting.hpp"

namespace gaugepoint {

struct QuotaWidgetWindowView {
    std::string id;
    QuotaWindowSemantic semantic = QuotaWindowSemantic::generic;
    std::string label;        // widgetLabel
    std::string detailLabel;  // localizedLabel
    double usedPercent = 0;
    std::string usedText;
    double remainingPercent = 0;
    std::string remainingText;
    double progress = 0;
    std::optional<Date> resetsAt;
    std::string resetText;         // relative, standard style
    std::string resetCompactText;  // relative, compact style
    std::string resetSummaryText;  // standard style with the clock time
};
BOOST_DESCRIBE_STRUCT(QuotaWidgetWindowView, (),
                      (id, semantic, label, detailLabel, usedPercent, usedText, remainingPercent, remainingText,
                       progress, resetsAt, resetText, resetCompactText, resetSummaryText))

struct QuotaWidgetProviderView {
    std::string id;
    std::string displayName;
    QuotaProviderStrategy quotaStrategy = QuotaProviderStrategy::unknown;
    std::string status;  // compatibilityStatusText
    std::optional<std::string> creditsText;
    std::optional<std::string> balanceText;  // for providers whose credits are US dollars
    // Tokens and cost of the last 30 days when known: "3.1M tokens · $5.49 in 30 days".
    std::optional<std::string> usageText;
    std::optional<std::string> topWindowID;
    std::vector<QuotaWidgetWindowView> windows;  // in the provider's stored order
};
BOOST_DESCRIBE_STRUCT(QuotaWidgetProviderView, (),
                      (id, displayName, quotaStrategy, status, creditsText, balanceText, usageText, topWindowID, windows))

struct QuotaWidgetView {
    Date generatedAt;
    std::optional<Date> nextResetAt;
    std::string language;
    std::vector<QuotaWidgetProviderView> providers;

    // The view of `snapshot` at `now` in `language`. Clock times use the user's locale.
    static QuotaWidgetView make(const QuotaSnapshot& snapshot, Date now, std::string_view language);
};
BOOST_DESCRIBE_STRUCT(QuotaWidgetView, (), (generatedAt, nextResetAt, language, providers))

}  // namespace gaugepoint
