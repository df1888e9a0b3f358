#include "gaugepoint/alerts/AlertRules.hpp"

#include <boost/describe/enum_to_string.hpp>

#include <algorithm>
#include <charconv>
#include <cmath>

namespace gaugepoint {
namespace {

constexpr double kPeriodTolerance = 10 * 60;  // seconds

std::string numberKey(double value) {
    char text[32];
    const auto end = std::to_chars(text, text + sizeof text, value).ptr;
    return {text, end};
}

std::string windowKeyOf(const std::string& providerID, const std::string& windowID) {
    return providerID + "|" + windowID;
}

AlertCandidate windowCandidate(AlertRule rule, const AlertProviderReading& provider, const QuotaWindowNow& window,
                               double period) {
    AlertCandidate c;
    c.rule = rule;
    c.providerID = provider.providerID;
    c.providerName = provider.providerName;
    c.window = window.window;
    c.value = window.window.usedPercent;
    if (period > 0) c.periodEnd = dateFromSeconds(period);
    c.key = std::string(boost::describe::enum_to_string(rule, "")) + "|" +
            windowKeyOf(provider.providerID, window.window.id) + "|" + numberKey(period);
    return c;
}

// The highest threshold crossed gets its own candidate; lower ones crossed by the same jump are
// claimed with it (so they never fire later in the period), hence one candidate each.
void thresholdCandidates(const AlertProviderReading& provider, const QuotaWindowNow& window, double period,
                         const AlertSettings& settings, std::vector<AlertCandidate>& out) {
    if (window.resetPassed) return;
    for (const double threshold : settings.thresholdsFor(provider.providerID, window.window.semantic)) {
        if (window.window.usedPercent < threshold) continue;
        auto c = windowCandidate(AlertRule::threshold, provider, window, period);
        c.limit = threshold;
        c.key += "|" + numberKey(threshold);
        out.push_back(std::move(c));
    }
}

void resetCandidates(const AlertProviderReading& provider, const QuotaWindowNow& window,
                     const KnownAlertPeriods& known, Date now, std::vector<AlertCandidate>& out) {
    const auto periods = known.find(windowKeyOf(provider.providerID, window.window.id));
    if (periods == known.end()) return;
    const double current = window.window.resetsAt ? secondsSince1970(*window.window.resetsAt) : 0;
    for (const double period : periods->second) {
        if (period <= 0 || period > secondsSince1970(now)) continue;
        const bool begunAgain = window.resetPassed || current > period + kPeriodTolerance;
        if (begunAgain) out.push_back(windowCandidate(AlertRule::reset, provider, window, period));
    }
}

void runsOutCandidate(const AlertProviderReading& provider, const QuotaWindowNow& window, double period,
                      std::vector<AlertCandidate>& out) {
    if (!window.pace || !window.pace->runsOutAt || !window.window.resetsAt) return;
    if (*window.pace->runsOutAt >= *window.window.resetsAt || window.window.usedPercent >= 100) return;
    auto c = windowCandidate(AlertRule::runsOut, provider, window, period);
    c.runsOutAt = window.pace->runsOutAt;
    c.limit = 100;
    out.push_back(std::move(c));
}

void budgetCandidate(const std::optional<double>& budget, const std::optional<double>& spent, const char* period,
                     const std::string& day, std::vector<AlertCandidate>& out) {
    if (!budget || !spent || *spent < *budget) return;
    AlertCandidate c;
    c.rule = AlertRule::budget;
    c.limit = *budget;
    c.value = *spent;
    c.budgetPeriod = period;
    c.budgetDay = day;
    c.key = "budget|" + std::string(period) + "|" + day;
    out.push_back(std::move(c));
}

}  // namespace

bool AlertCandidate::critical() const {
    return rule == AlertRule::runsOut || (rule == AlertRule::threshold && value >= 95);
}

std::string AlertCandidate::windowKey() const {
    if (rule == AlertRule::budget) return "budget|" + budgetPeriod;
    return windowKeyOf(providerID, window.id);
}

double alertPeriodOf(const KnownAlertPeriods& known, const std::string& windowKey, double resetsAt) {
    if (const auto it = known.find(windowKey); it != known.end()) {
        for (const double period : it->second) {
            if (std::abs(period - resetsAt) <= kPeriodTolerance) return period;
        }
    }
    return std::round(resetsAt);
}

std::vector<AlertCandidate> alertCandidates(const std::vector<AlertProviderReading>& readings,
                                            const AlertSpending& spending, const AlertSettings& settings,
                                            const KnownAlertPeriods& known, Date now) {
    std::vector<AlertCandidate> out;
    for (const auto& provider : readings) {
        for (const auto& window : provider.reading.windows) {
            const auto& resetsAt = window.window.resetsAt;
            const double period = resetsAt ? alertPeriodOf(known, windowKeyOf(provider.providerID, window.window.id),
                                                            secondsSince1970(*resetsAt))
                                           : 0;
            thresholdCandidates(provider, window, period, settings, out);
            resetCandidates(provider, window, known, now, out);
            runsOutCandidate(provider, window, period, out);
        }
    }
    budgetCandidate(settings.dailyBudgetUSD, spending.todayUSD, "daily", spending.day, out);
    budgetCandidate(settings.monthlyBudgetUSD, spending.monthUSD, "monthly", spending.month, out);
    return out;
}

double highestUsedPercent(const std::vector<AlertProviderReading>& readings) {
    double highest = 0;
    for (const auto& provider : readings) {
        for (const auto& window : provider.reading.windows) highest = std::max(highest, window.window.usedPercent);
    }
    return highest;
}

}  // namespace gaugepoint
