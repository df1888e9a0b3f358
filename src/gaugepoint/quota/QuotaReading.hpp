#pragma once

// A snapshot's providers as they read now, which is what every face shows: how old each
// provider's reading is, each window as of now (a window whose reset has passed has begun again
// unused, whatever it said before), its pace, and the window that constrains the provider most.

#include <cstddef>
#include <optional>
#include <string_view>
#include <vector>

#include "gaugepoint/model/ProviderQuota.hpp"
#include "gaugepoint/platform/UserDefaults.hpp"
#include "gaugepoint/quota/QuotaPace.hpp"

namespace gaugepoint {

// When a reading counts as stale.
struct QuotaFreshnessPolicy {
    // The user default that holds the threshold in minutes (a positive number).
    static constexpr std::string_view staleAfterMinutesKey = "quota.staleAfterMinutes";
    double staleAfterSeconds = 15 * 60;

    // The threshold from the user defaults, else 15 minutes.
    static QuotaFreshnessPolicy fromDefaults(const UserDefaults& defaults);
};

struct QuotaWindowNow {
    QuotaWindow window;        // as of now: usedPercent 0 once the reset has passed
    bool resetPassed = false;  // window.resetsAt is the passed reset
    bool estimated = false;    // an estimate of ours, not a reported reading
    QuotaPaceStatus paceStatus = QuotaPaceStatus::unavailable;
    std::optional<QuotaPace> pace;
};

// `window` at `now`.
QuotaWindowNow quotaWindowNow(const QuotaWindow& window, Date now);

struct QuotaProviderNow {
    Date observedAt;          // the provider's updatedAt, else when the snapshot was made
    double ageSeconds = 0;    // now - observedAt, never below 0
    bool stale = false;       // older than the policy allows
    std::vector<QuotaWindowNow> windows;  // in the provider's stored order
    // The window with the least left (ties: the one first in top-window order); none without windows.
    std::optional<std::size_t> constrainingIndex;

    const QuotaWindowNow* constraining() const { return constrainingIndex ? &windows[*constrainingIndex] : nullptr; }
};

// `provider` of a snapshot generated at `generatedAt`, as it reads at `now`.
QuotaProviderNow quotaProviderNow(const ProviderQuota& provider, Date generatedAt, Date now,
                                  const QuotaFreshnessPolicy& policy = {});

}  // namespace gaugepoint
