#pragma once

// Alerts end to end: the rules over this machine's readings and spending, each firing claimed
// once in the AlertStateStore, written to the notification inbox ("quota-notify-inbox.sqlite")
// and shown on the desktop unless the desktop is off or in quiet hours. A jump over several
// thresholds of one window claims them all and tells of the highest.
//
// Evaluations that find nothing new read two small tables and write nothing; only an alert that
// is delivered loads libsystemd or touches the bus.

#include <boost/describe/class.hpp>

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "gaugepoint/alerts/AlertRules.hpp"
#include "gaugepoint/alerts/AlertStateStore.hpp"
#include "gaugepoint/alerts/DesktopNotifier.hpp"
#include "gaugepoint/model/QuotaSnapshot.hpp"
#include "gaugepoint/platform/QuotaSyncConfiguration.hpp"

namespace gaugepoint {

// One alert delivered by an evaluation.
struct AlertFiring {
    std::string key;
    std::string rule;
    std::string title;
    std::string body;
    std::string envelopeID;  // its inbox entry
    std::string desktop;     // "shown", "desktop off", "quiet hours", or why it was not shown
    bool operator==(const AlertFiring&) const = default;
};
BOOST_DESCRIBE_STRUCT(AlertFiring, (), (key, rule, title, body, envelopeID, desktop))

struct AlertEvaluation {
    std::vector<AlertFiring> fired;
    bool firstEvaluation = false;   // what was crossed was recorded without firing
    double highestUsedPercent = 0;  // of this machine's windows as of now

    // For scripts: 11 when a window is at 100 % or more, 10 at 90 % or more, else 0.
    int exitStatus() const { return highestUsedPercent >= 100 ? 11 : highestUsedPercent >= 90 ? 10 : 0; }
};
BOOST_DESCRIBE_STRUCT(AlertEvaluation, (), (fired, firstEvaluation, highestUsedPercent))

struct AlertStatus {
    std::vector<double> thresholds;
    std::map<std::string, std::string> settings;  // the keys changed from their defaults
    std::vector<FiredAlert> currentPeriods;        // recorded alerts whose period has not ended
    bool baselined = false;
    bool desktopEnabled = true;
    bool quietNow = false;
    bool desktopReachable = false;
    std::string desktop;                      // the server, or why it cannot be reached
    std::optional<std::string> lastDesktop;   // the last delivery's outcome and when
};
BOOST_DESCRIBE_STRUCT(AlertStatus, (),
                      (thresholds, settings, currentPeriods, baselined, desktopEnabled, quietNow, desktopReachable,
                       desktop, lastDesktop))

namespace QuotaAlerts {

// The prefix of the envelope ids of alert entries ("alert:SOURCE:KEY").
constexpr std::string_view envelopePrefix = "alert:";

// Evaluates `snapshot` (this machine's; none: nothing but budgets) at `now`, texts in
// `language`. Throws the stores' errors.
AlertEvaluation evaluate(const QuotaSyncConfiguration& configuration, const std::optional<QuotaSnapshot>& snapshot,
                         Date now, std::string_view language);
// The same over this machine's stored snapshot.
AlertEvaluation evaluate(const QuotaSyncConfiguration& configuration, Date now, std::string_view language);

// Desktop notifications for alerts that sync brought from other machines: only for a window of
// this machine's readings in the same period (the same account) whose alert was not already
// shown here; each is recorded as this machine's too. Returns what was shown. Throws as evaluate.
std::vector<AlertFiring> notifyPulled(const QuotaSyncConfiguration& configuration, Date now);

// What runs after a reading changed (scan, status line, and with `pulled` a sync pull): the
// evaluation, and what it could not do as one line instead of an exception.
std::optional<std::string> afterReadingChange(const QuotaSyncConfiguration& configuration,
                                              const std::optional<QuotaSnapshot>& snapshot, Date now,
                                              std::string_view language, bool pulled = false) noexcept;

// Settings, what fired in the current periods, and whether the desktop can be reached (asks the
// server when `probeDesktop`). Throws the stores' errors.
AlertStatus status(const QuotaSyncConfiguration& configuration, Date now, bool probeDesktop);

// One sample notification on the desktop, in `language`; nothing is recorded but the outcome.
DesktopDelivery test(const QuotaSyncConfiguration& configuration, std::string_view language);

}  // namespace QuotaAlerts
}  // namespace gaugepoint
