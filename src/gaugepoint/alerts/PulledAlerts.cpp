// Alerts raised on the user's other machines, as sync brought them into the inbox. Their
// envelope id names the source and the alert key ("alert:SOURCE:threshold|claude|five_hour|
// 1795251600|90"); the key says which window and period it is about.

#include <charconv>
#include <set>
#include <vector>

#include "gaugepoint/alerts/AlertDelivery.hpp"
#include "gaugepoint/alerts/QuotaAlerts.hpp"
#include "gaugepoint/notify/QuotaNotifyInboxStore.hpp"
#include "gaugepoint/reports/LocalQuotaSnapshot.hpp"

namespace gaugepoint::QuotaAlerts {
namespace {

struct PulledKey {
    std::string rule, providerID, windowID;
    double periodEnd = 0;
    std::string rest;  // "|90" for a threshold
};

// The parts of "RULE|PROVIDER|WINDOW|PERIOD[|THRESHOLD]"; none for budgets and anything else.
std::optional<PulledKey> parseKey(std::string_view key) {
    std::vector<std::string_view> parts;
    for (std::size_t start = 0;;) {
        const auto bar = key.find('|', start);
        parts.push_back(key.substr(start, bar - start));
        if (bar == std::string_view::npos) break;
        start = bar + 1;
    }
    if (parts.size() < 4 || (parts[0] != "threshold" && parts[0] != "runsOut")) return {};
    PulledKey k{std::string(parts[0]), std::string(parts[1]), std::string(parts[2]), 0, {}};
    const auto [end, error] = std::from_chars(parts[3].data(), parts[3].data() + parts[3].size(), k.periodEnd);
    if (error != std::errc() || end != parts[3].data() + parts[3].size()) return {};
    for (std::size_t i = 4; i < parts.size(); ++i) k.rest += "|" + std::string(parts[i]);
    return k;
}

// This machine's reading of the window, when it is in the same period: the window belongs to
// this account. The period end this machine knows it by, else none.
std::optional<double> localPeriod(const std::optional<QuotaSnapshot>& snapshot, const PulledKey& key,
                                  const KnownAlertPeriods& known) {
    if (!snapshot) return {};
    for (const auto& provider : snapshot->providers) {
        if (provider.id != key.providerID) continue;
        for (const auto& window : provider.windows) {
            if (window.id != key.windowID || !window.resetsAt) continue;
            const std::string windowKey = key.providerID + "|" + key.windowID;
            const double ours = alertPeriodOf(known, windowKey, secondsSince1970(*window.resetsAt));
            KnownAlertPeriods theirs{{windowKey, {key.periodEnd}}};
            if (alertPeriodOf(theirs, windowKey, ours) == key.periodEnd) return ours;
        }
    }
    return {};
}

}  // namespace

std::vector<AlertFiring> notifyPulled(const QuotaSyncConfiguration& configuration, Date now) {
    const std::string self = configuration.localSourceID();
    std::vector<QuotaNotifyArchiveEntry> pulled;
    for (auto& entry : QuotaNotifyInboxStore{configuration}.loadAllEntries()) {
        if (entry.origin == "sync" && entry.envelopeID.starts_with(envelopePrefix) && entry.sourceID &&
            *entry.sourceID != self) {
            pulled.push_back(std::move(entry));
        }
    }
    if (pulled.empty()) return {};

    const auto snapshot = LocalQuotaSnapshot::latest(configuration);
    const AlertStateStore store{configuration};
    std::vector<FiredAlert> fired = store.load();
    std::set<std::string> recorded;
    for (const auto& f : fired) recorded.insert(f.key);
    KnownAlertPeriods known;
    for (const auto& f : fired) {
        if (f.periodEnd > 0) known[f.providerID + "|" + f.windowID].insert(f.periodEnd);
    }
    const auto settings = AlertSettings::load(*configuration.userDefaults);
    std::vector<AlertFiring> shown;
    for (const auto& entry : pulled) {
        const std::string key = entry.envelopeID.substr(envelopePrefix.size() + entry.sourceID->size() + 1);
        const auto parsed = parseKey(key);
        const auto period = parsed ? localPeriod(snapshot, *parsed, known) : std::nullopt;
        if (!period) continue;
        char periodText[32];
        const auto end = std::to_chars(periodText, periodText + sizeof periodText, *period).ptr;
        const std::string localKey = parsed->rule + "|" + parsed->providerID + "|" + parsed->windowID + "|" +
                                     std::string(periodText, end) + parsed->rest;
        if (recorded.contains(localKey)) continue;
        const FiredAlert record{localKey, parsed->rule, parsed->providerID, parsed->windowID, *period, now, false, {}, {}};
        if (store.claim({record}, now).empty()) continue;  // another process, or the first evaluation, has it
        recorded.insert(localKey);
        const AlertText::Message text{entry.title, entry.body};
        const bool critical = entry.level == std::optional<std::string>("critical");
        const std::string desktop = AlertDelivery::toDesktop(store, settings, parsed->providerID + "|" + parsed->windowID,
                                                             text, critical, now);
        store.recordDelivery(localKey, entry.envelopeID, desktop);
        shown.push_back({localKey, parsed->rule, entry.title, entry.body, entry.envelopeID, desktop});
    }
    return shown;
}

}  // namespace gaugepoint::QuotaAlerts
