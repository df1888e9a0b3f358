#pragma once

// Delivering one claimed alert: its inbox entry, and its desktop notification unless the
// desktop is off or in quiet hours. Shared by the evaluation and by alerts pulled through sync.

#include <string>
#include <string_view>

#include "gaugepoint/alerts/AlertRules.hpp"
#include "gaugepoint/alerts/AlertStateStore.hpp"
#include "gaugepoint/alerts/AlertText.hpp"
#include "gaugepoint/model/QuotaNotifyArchiveEntry.hpp"
#include "gaugepoint/platform/QuotaSyncConfiguration.hpp"

namespace gaugepoint::AlertDelivery {

// The inbox category of a rule: "quota", "reset", "pace" or "budget".
std::string_view category(AlertRule rule);

// The inbox entry of `alert` raised by this machine at `now`: envelope id "alert:SOURCE:KEY",
// thread per provider ("budget" for budgets), level critical, warning or info.
QuotaNotifyArchiveEntry inboxEntry(const AlertCandidate& alert, const AlertText::Message& text,
                                   const QuotaSyncConfiguration& configuration, Date now);

// Shows `text` on the desktop in place of the window's previous notification, as the settings
// allow, and records the outcome as the store's last desktop state. Returns "shown", "desktop
// off", "quiet hours", or why it was not shown. Never throws for the desktop; throws the store's errors.
std::string toDesktop(const AlertStateStore& store, const AlertSettings& settings, std::string_view windowKey,
                      const AlertText::Message& text, bool critical, Date now);

}  // namespace gaugepoint::AlertDelivery
