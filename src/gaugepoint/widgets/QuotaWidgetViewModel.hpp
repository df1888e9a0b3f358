#pragma once

// What a widget shows for one snapshot at one moment: every text and number, ready to print.
// Its JSON form is the `gaugepoint widget --format json` document.

#include <boost/describe/class.hpp>

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "gaugepoint/model/QuotaFormatting.hpp"
#include "gaugepoint/quota/QuotaReading.hpp"

namespace gaugepoint {

struct QuotaWidgetWindowView {
    std::string id;
    QuotaWindowSemantic semantic = QuotaWindowSemantic::generic;
    std::string label;        // widgetLabel
    std::string detailLabel;  // localizedLabel
    std::string reading;  // "official" (reported by the service) or "estimated" (ours)
    double usedPercent = 0;  // as of now: 0 once the reset has passed without a newer reading
    std::string usedText;
    double remainingPercent = 0;
    std::string remainingText;
    double progress = 0;
    std::optional<Date> resetsAt;
    std::string resetText;         // relative, standard style
    std::string resetCompactText;  // relative, compact style
    std::string resetSummaryText;  // standard style with the clock time
    bool resetPassed = false;      // resetsAt has passed: texts say "reset at 14:00, no reading since"
    std::optional<QuotaPace> pace;
    std::optional<std::string> paceText;  // "12% ahead · runs out ~Thu 14:00, 1 day before reset"
};
BOOST_DESCRIBE_STRUCT(QuotaWidgetWindowView, (),
                      (id, semantic, label, detailLabel, reading, usedPercent, usedText, remainingPercent, remainingText,
                       progress, resetsAt, resetText, resetCompactText, resetSummaryText, resetPassed, pace, paceText))

struct QuotaWidgetProviderView {
    std::string id;
    std::string displayName;
    QuotaProviderStrategy quotaStrategy = QuotaProviderStrategy::unknown;
    std::string status;  // compatibilityStatusText
    std::optional<std::string> creditsText;
    std::optional<std::string> balanceText;  // for providers whose credits are US dollars
    // Tokens and cost of the last 30 days when known: "3.1M tokens · $5.49 in 30 days", with
    // the tokens no price covers named: "… in 30 days (220.2K unpriced)". A provider without
    // windows shows its local day instead, when the snapshot has its days and it used anything
    // that day: "1.2M tokens · $0.84 today".
    std::optional<std::string> usageText;
    std::optional<std::string> topWindowID;
    // The window with the least left: it decides the provider's headline.
    std::optional<std::string> headlineWindowID;
    Date observedAt;              // when the provider's figures were read
    std::int64_t ageSeconds = 0;  // how long ago, at the view's moment
    bool stale = false;           // older than the freshness threshold
    std::optional<std::string> ageText;  // "as of 12 min ago", only when stale
    std::vector<QuotaWidgetWindowView> windows;  // in the provider's stored order
};
BOOST_DESCRIBE_STRUCT(QuotaWidgetProviderView, (),
                      (id, displayName, quotaStrategy, status, creditsText, balanceText, usageText, topWindowID,
                       headlineWindowID, observedAt, ageSeconds, stale, ageText, windows))

// What the view names beside a snapshot's usage, from this machine's stores: per provider id, the
// tokens without a price of the last 30 days and of today, and today's local day ("yyyy-MM-dd").
// Without `today` every provider keeps its 30-day line.
struct QuotaWidgetUsageNotes {
    std::map<std::string, std::int64_t> unpricedLast30Days;
    std::map<std::string, std::int64_t> unpricedToday;
    std::optional<std::string> today;
};

struct QuotaWidgetView {
    Date generatedAt;
    std::optional<Date> nextResetAt;
    std::string language;
    std::vector<QuotaWidgetProviderView> providers;

    // The view of `snapshot` at `now` in `language`; readings older than `policy` allows are
    // stale. Clock times use the user's locale.
    // `notes` name the tokens without a price beside each provider's usage, and give the day
    // of a provider without windows.
    static QuotaWidgetView make(const QuotaSnapshot& snapshot, Date now, std::string_view language,
                                const QuotaFreshnessPolicy& policy = {}, const QuotaWidgetUsageNotes& notes = {});
};
BOOST_DESCRIBE_STRUCT(QuotaWidgetView, (), (generatedAt, nextResetAt, language, providers))

}  // namespace gaugepoint
