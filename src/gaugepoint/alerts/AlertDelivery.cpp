#include "gaugepoint/alerts/AlertDelivery.hpp"

#include "gaugepoint/alerts/DesktopNotifier.hpp"
#include "gaugepoint/alerts/QuotaAlerts.hpp"

namespace gaugepoint::AlertDelivery {

std::string_view category(AlertRule rule) {
    switch (rule) {
        case AlertRule::threshold: return "quota";
        case AlertRule::reset: return "reset";
        case AlertRule::runsOut: return "pace";
        case AlertRule::budget: return "budget";
    }
    return "general";
}

QuotaNotifyArchiveEntry inboxEntry(const AlertCandidate& alert, const AlertText::Message& text,
                                   const QuotaSyncConfiguration& configuration, Date now) {
    QuotaNotifyArchiveEntry e;
    const std::string source = configuration.localSourceID();
    e.envelopeID = std::string(QuotaAlerts::envelopePrefix) + source + ":" + alert.key;
    e.threadID = alert.rule == AlertRule::budget ? "budget" : alert.providerID;
    e.createdAt = now;
    e.archivedAt = now;
    e.origin = "alerts";
    e.title = text.title;
    e.body = text.body;
    e.sourceID = source;
    e.sourceName = configuration.localSourceName();
    if (alert.rule != AlertRule::budget) {
        e.providerID = alert.providerID;
        e.providerDisplayName = alert.providerName;
    }
    e.groupID = alert.windowKey();
    e.category = std::string(category(alert.rule));
    e.level = alert.critical() ? "critical" : alert.rule == AlertRule::reset ? "info" : "warning";
    e.deliveredVia = {"inbox"};
    return e;
}

std::string toDesktop(const AlertStateStore& store, const AlertSettings& settings, std::string_view windowKey,
                      const AlertText::Message& text, bool critical, Date now) {
    if (!settings.desktop) return "desktop off";
    if (settings.quietHours && settings.quietHours->contains(now)) return "quiet hours";
    const auto delivery = DesktopNotifier::notify({text.title, text.body, critical, store.notificationID(windowKey)});
    const std::string outcome = delivery.shown() ? "shown" : delivery.problem;
    if (delivery.id) store.setNotificationID(windowKey, *delivery.id);
    store.setState("desktop", outcome + " at " + formatISO8601(now));
    return outcome;
}

}  // namespace gaugepoint::AlertDelivery
