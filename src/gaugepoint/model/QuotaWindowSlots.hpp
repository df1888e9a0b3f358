#pragma once

// How a provider's reported windows read. Providers (and the sibling app) report up to three
// window slots: primary, the short rolling window; secondary, the longer cycle; tertiary, a
// further limit. Some providers use the slots for request categories or credit pools instead.

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "gaugepoint/model/ProviderQuota.hpp"

namespace gaugepoint {

// One reported slot.
struct QuotaSlotWindow {
    double usedPercent = 0;
    std::optional<Date> resetsAt;
    std::optional<std::int64_t> windowMinutes;
    std::optional<std::string> label;
    std::optional<std::string> modelSlug;
    std::optional<std::string> resetDescription;
};

// Sets the provider's windows (ids "primary", "secondary", "tertiary", importance by slot, labels
// and semantics by provider; sorted by importance) and its strategy from the slots present and
// whether it has a credit balance. `provider.id` must be set.
void applyWindowSlots(ProviderQuota& provider, const std::array<std::optional<QuotaSlotWindow>, 3>& slots);

}  // namespace gaugepoint
