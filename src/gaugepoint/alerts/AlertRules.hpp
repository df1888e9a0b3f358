#pragma once

// The rules: which alerts the readings of now call for. Pure: what has already fired is the
// caller's business (AlertStateStore); every candidate carries the key that says "this rule, this
// window, this period", and an alert fires at most once per key.
//   threshold  a window's used percent is at or past one of its thresholds
//   reset      a window whose period had a threshold or a "runs out" recorded has begun anew
//   runsOut    the pace says the window reaches 100 % before its reset
//   budget     today's or this month's spending has reached its budget

#include <boost/describe/enum.hpp>

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "gaugepoint/alerts/AlertSettings.hpp"
#include "gaugepoint/quota/QuotaReading.hpp"

namespace gaugepoint {

enum class AlertRule { threshold, reset, runsOut, budget };
BOOST_DESCRIBE_ENUM(AlertRule, threshold, reset, runsOut, budget)

struct AlertCandidate {
    std::string key;  // "threshold|claude|five_hour|1795251600|90"
    AlertRule rule = AlertRule::threshold;
    std::string providerID;    // "" for a budget
    std::string providerName;
    QuotaWindow window;             // as of now; empty for a budget
    std::optional<Date> periodEnd;  // the reset that ends the window's period
    double limit = 0;               // the threshold percent, or the budget in US dollars
    double value = 0;               // the used percent, or the spending in US dollars
    std::optional<Date> runsOutAt;
    std::string budgetPeriod;  // "daily" or "monthly", with the day or month it counts ("2026-11-24")
    std::string budgetDay;

    // Critical for a window at 95 % or more, whatever threshold it crossed, and for one that runs
    // out; a reset is only information.
    bool critical() const;
    // "threshold|claude|five_hour": the window a desktop notification replaces its predecessor in.
    std::string windowKey() const;
};

// One provider's windows as of now, with the names the texts use.
struct AlertProviderReading {
    std::string providerID;
    std::string providerName;
    QuotaProviderNow reading;
};

// Spending so far in US dollars, in the periods of the local calendar.
struct AlertSpending {
    std::optional<double> todayUSD;
    std::string day;  // "2026-11-24"
    std::optional<double> monthUSD;
    std::string month;  // "2026-11"
};

// The periods already known per window ("claude|five_hour"): ends of periods in which a
// threshold or a "runs out" was recorded, so that a reset after either can be told and a
// reading's jittery reset time can be matched to the period it belongs to.
using KnownAlertPeriods = std::map<std::string, std::set<double>>;

// The period a reading with reset `resetsAt` belongs to: a known period end within ten minutes
// of it (readings computed from "resets in N seconds" wander by seconds), else `resetsAt`
// itself, to the second.
double alertPeriodOf(const KnownAlertPeriods& known, const std::string& windowKey, double resetsAt);

// Every candidate for `readings` and `spending` under `settings` at `now`. A window without a
// reset counts as one endless period. Estimated windows take part like reported ones.
std::vector<AlertCandidate> alertCandidates(const std::vector<AlertProviderReading>& readings,
                                            const AlertSpending& spending, const AlertSettings& settings,
                                            const KnownAlertPeriods& known, Date now);

// The highest used percent among the windows of `readings` (passed resets count as 0).
double highestUsedPercent(const std::vector<AlertProviderReading>& readings);

}  // namespace gaugepoint
