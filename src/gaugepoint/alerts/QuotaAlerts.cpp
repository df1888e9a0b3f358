#include "gaugepoint/alerts/QuotaAlerts.hpp"

#include <boost/describe/enum_to_string.hpp>

#include <algorithm>
#include <set>

#include "gaugepoint/alerts/AlertDelivery.hpp"
#include "gaugepoint/alerts/AlertText.hpp"
#include "gaugepoint/notify/QuotaNotifyInboxStore.hpp"
#include "gaugepoint/platform/LocalCalendar.hpp"
#include "gaugepoint/reports/LocalQuotaSnapshot.hpp"
#include "gaugepoint/reports/UsagePeriods.hpp"

namespace gaugepoint::QuotaAlerts {
namespace {

std::vector<AlertProviderReading> readingsOf(const std::optional<QuotaSnapshot>& snapshot, Date now,
                                             const QuotaFreshnessPolicy& policy) {
    std::vector<AlertProviderReading> readings;
    if (!snapshot) return readings;
    for (const auto& provider : snapshot->providers) {
        readings.push_back({provider.id, provider.displayName, quotaProviderNow(provider, snapshot->generatedAt, now, policy)});
    }
    return readings;
}

// Spending of every tool in the local calendar, counted only for the budgets that are set.
AlertSpending spendingAt(const QuotaSyncConfiguration& configuration, const AlertSettings& settings, Date now) {
    AlertSpending spending;
    if (!settings.dailyBudgetUSD && !settings.monthlyBudgetUSD) return spending;
    const auto calendar = LocalCalendar::current(LocalCalendar::Kind::gregorian);
    const QuotaUsageEntryStore store{QuotaSessionFileRegistry{configuration}};
    spending.day = calendar.dayKey(now);
    spending.month = spending.day.substr(0, 7);
    const auto costSince = [&](std::string since) {
        UsageReportFilter filter;
        filter.since = std::move(since);
        return usageOfDays(store, calendar, filter).totalCost;
    };
    if (settings.dailyBudgetUSD) spending.todayUSD = costSince(spending.day);
    if (settings.monthlyBudgetUSD) spending.monthUSD = costSince(spending.month + "-01");
    return spending;
}

KnownAlertPeriods knownPeriods(const std::vector<FiredAlert>& fired) {
    KnownAlertPeriods known;
    for (const auto& f : fired) {
        if ((f.rule == "threshold" || f.rule == "runsOut") && f.periodEnd > 0) {
            known[f.providerID + "|" + f.windowID].insert(f.periodEnd);
        }
    }
    return known;
}

FiredAlert recordOf(const AlertCandidate& c, Date now) {
    return {c.key, boost::describe::enum_to_string(c.rule, ""), c.providerID, c.window.id,
            c.periodEnd ? secondsSince1970(*c.periodEnd) : 0, now, false, std::nullopt, std::nullopt};
}

// Of the candidates just claimed, those to tell of: per window only the highest threshold, and
// none below a threshold the user was already told of in this period.
std::vector<const AlertCandidate*> toDeliver(const std::vector<AlertCandidate>& candidates,
                                             const std::set<std::string>& claimed,
                                             const std::set<std::string>& recordedBefore) {
    std::map<std::string, const AlertCandidate*> highest;
    std::map<std::string, double> toldBefore;
    std::vector<const AlertCandidate*> out;
    for (const auto& c : candidates) {
        if (c.rule == AlertRule::threshold && recordedBefore.contains(c.key)) {
            toldBefore[c.windowKey()] = std::max(toldBefore[c.windowKey()], c.limit);
        }
        if (!claimed.contains(c.key)) continue;
        if (c.rule != AlertRule::threshold) {
            out.push_back(&c);
        } else if (auto& h = highest[c.windowKey()]; !h || h->limit < c.limit) {
            h = &c;
        }
    }
    for (const auto& [window, c] : highest) {
        if (!toldBefore.contains(window) || toldBefore[window] < c->limit) out.push_back(c);
    }
    return out;
}

std::vector<AlertFiring> deliver(const QuotaSyncConfiguration& configuration, const AlertStateStore& store,
                                 const AlertSettings& settings, const std::vector<const AlertCandidate*>& alerts,
                                 Date now, std::string_view language) {
    std::vector<AlertFiring> fired;
    std::vector<QuotaNotifyArchiveEntry> entries;
    std::vector<AlertText::Message> texts;
    for (const auto* alert : alerts) {
        texts.push_back(AlertText::of(*alert, language));
        entries.push_back(AlertDelivery::inboxEntry(*alert, texts.back(), configuration, now));
    }
    if (!entries.empty()) QuotaNotifyInboxStore{configuration}.upsert(entries);
    for (std::size_t i = 0; i < alerts.size(); ++i) {
        const auto& alert = *alerts[i];
        const std::string desktop =
            AlertDelivery::toDesktop(store, settings, alert.windowKey(), texts[i], alert.critical(), now);
        store.recordDelivery(alert.key, entries[i].envelopeID, desktop);
        fired.push_back({alert.key, boost::describe::enum_to_string(alert.rule, ""), texts[i].title, texts[i].body,
                         entries[i].envelopeID, desktop});
    }
    return fired;
}

}  // namespace

AlertEvaluation evaluate(const QuotaSyncConfiguration& configuration, const std::optional<QuotaSnapshot>& snapshot,
                         Date now, std::string_view language) {
    const auto settings = AlertSettings::load(*configuration.userDefaults);
    const auto readings = readingsOf(snapshot, now, QuotaFreshnessPolicy::fromDefaults(*configuration.userDefaults));
    AlertEvaluation result;
    result.highestUsedPercent = highestUsedPercent(readings);

    const AlertStateStore store{configuration};
    const auto fired = store.load();
    const bool baselined = store.baselined();
    const auto candidates =
        alertCandidates(readings, spendingAt(configuration, settings, now), settings, knownPeriods(fired), now);
    std::set<std::string> recorded;
    for (const auto& f : fired) recorded.insert(f.key);
    std::vector<FiredAlert> fresh;
    for (const auto& c : candidates) {
        if (!recorded.contains(c.key)) fresh.push_back(recordOf(c, now));
    }
    if (baselined && fresh.empty()) return result;  // the common case: nothing new, nothing written

    std::set<std::string> claimed;
    for (const auto& f : store.claim(fresh, now)) claimed.insert(f.key);
    result.firstEvaluation = !baselined;
    result.fired = deliver(configuration, store, settings, toDeliver(candidates, claimed, recorded), now, language);
    return result;
}

AlertEvaluation evaluate(const QuotaSyncConfiguration& configuration, Date now, std::string_view language) {
    return evaluate(configuration, LocalQuotaSnapshot::latest(configuration), now, language);
}

std::optional<std::string> afterReadingChange(const QuotaSyncConfiguration& configuration,
                                              const std::optional<QuotaSnapshot>& snapshot, Date now,
                                              std::string_view language, bool pulled) noexcept {
    try {
        evaluate(configuration, snapshot, now, language);
        if (pulled) notifyPulled(configuration, now);
        return std::nullopt;
    } catch (const std::exception& e) {
        return std::string("alerts were not evaluated: ") + e.what();
    }
}

AlertStatus status(const QuotaSyncConfiguration& configuration, Date now, bool probeDesktop) {
    const auto settings = AlertSettings::load(*configuration.userDefaults);
    AlertStatus s;
    s.thresholds = settings.thresholds;
    s.settings = AlertSettings::changed(*configuration.userDefaults);
    s.desktopEnabled = settings.desktop;
    s.quietNow = settings.quietHours && settings.quietHours->contains(now);
    const AlertStateStore store{configuration};
    s.baselined = store.baselined();
    const std::string today = LocalCalendar::current(LocalCalendar::Kind::gregorian).dayKey(now);
    for (const auto& f : store.load()) {
        const bool budgetNow = f.rule == "budget" && (f.key.ends_with(today) || f.key.ends_with(today.substr(0, 7)));
        const bool windowNow = f.rule != "budget" && f.rule != "reset" && (f.periodEnd == 0 || f.periodEnd > secondsSince1970(now));
        if (budgetNow || windowNow) s.currentPeriods.push_back(f);
    }
    s.lastDesktop = store.state("desktop");
    if (probeDesktop) {
        const auto server = DesktopNotifier::probe();
        s.desktopReachable = server.reachable;
        s.desktop = server.description;
    } else {
        s.desktop = "not asked";
    }
    return s;
}

DesktopDelivery test(const QuotaSyncConfiguration& configuration, std::string_view language) {
    const auto text = AlertText::sample(language);
    const auto delivery = DesktopNotifier::notify({text.title, text.body, false, std::nullopt});
    const Date now = configuration.clock.now();
    AlertStateStore{configuration}.setState("desktop", (delivery.shown() ? "shown" : delivery.problem) +
                                                           " at " + formatISO8601(now) + " (test)");
    return delivery;
}

}  // namespace gaugepoint::QuotaAlerts
