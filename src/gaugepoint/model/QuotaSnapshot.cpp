#include "gaugepoint/model/QuotaSnapshot.hpp"

#include <chrono>

namespace gaugepoint {

const QuotaSnapshot& QuotaSnapshot::empty() {
    static const QuotaSnapshot snapshot{1, Date{std::chrono::system_clock::now()}, std::nullopt, {}};
    return snapshot;
}

std::optional<Date> QuotaSnapshot::nextResetAt() const {
    std::optional<Date> earliest;
    for (const auto& provider : providers) {
        for (const auto& window : provider.windows) {
            if (window.resetsAt && (!earliest || *window.resetsAt < *earliest)) earliest = window.resetsAt;
        }
    }
    return earliest;
}

}  // namespace gaugepoint
