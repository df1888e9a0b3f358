#include "gaugepoint/quota/QuotaPace.hpp"

#include <algorithm>
#include <cmath>

namespace gaugepoint {
namespace {

constexpr double kTooEarlyFraction = 0.1;

// Elapsed share of the window at `now` (0...1), or none when the window has no known span.
std::optional<double> elapsedFraction(const QuotaWindow& window, Date now) {
    if (!window.windowMinutes || *window.windowMinutes <= 0 || !window.resetsAt) return std::nullopt;
    if (!std::isfinite(window.usedPercent) || *window.resetsAt <= now) return std::nullopt;
    const double length = double(*window.windowMinutes) * 60.0;
    const double remaining = secondsSince1970(*window.resetsAt) - secondsSince1970(now);
    if (remaining > length) return std::nullopt;  // the reading says the window has not begun
    return (length - remaining) / length;
}

}  // namespace

QuotaPaceStatus quotaPaceStatus(const QuotaWindow& window, Date now) {
    const auto fraction = elapsedFraction(window, now);
    if (!fraction) return QuotaPaceStatus::unavailable;
    return *fraction < kTooEarlyFraction ? QuotaPaceStatus::tooEarly : QuotaPaceStatus::measured;
}

std::optional<QuotaPace> quotaPace(const QuotaWindow& window, Date now) {
    const auto fraction = elapsedFraction(window, now);
    if (!fraction || *fraction < kTooEarlyFraction) return std::nullopt;
    const double used = std::max(0.0, window.usedPercent);
    QuotaPace pace;
    pace.expectedPercent = *fraction * 100.0;
    pace.deltaPercent = used - pace.expectedPercent;
    pace.projectedPercent = used / *fraction;
    if (pace.projectedPercent > 100.0) {
        // Used grows linearly from the window's start: 100 % is reached at start + elapsed * 100 / used.
        const double length = double(*window.windowMinutes) * 60.0;
        const double start = secondsSince1970(*window.resetsAt) - length;
        const double elapsed = *fraction * length;
        pace.runsOutAt = used >= 100.0 ? now : dateFromSeconds(start + elapsed * 100.0 / used);
    }
    return pace;
}

}  // namespace gaugepoint
