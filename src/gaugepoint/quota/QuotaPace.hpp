#pragma once

// The pace of a window: how its use compares with an even burn over its length, and where that
// pace leads by the reset. Needs a window length and a reset time; percents are of the window.

#include <boost/describe/class.hpp>

#include <optional>

#include "gaugepoint/model/QuotaWindow.hpp"

namespace gaugepoint {

struct QuotaPace {
    double expectedPercent = 0;     // used by now at an even burn: elapsed / length * 100
    double deltaPercent = 0;        // used minus expected; above 0 the window burns faster
    double projectedPercent = 0;    // used at the reset if the pace since its start holds
    std::optional<Date> runsOutAt;  // when projectedPercent > 100: the moment 100 % is reached
    bool operator==(const QuotaPace&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaPace, (), (expectedPercent, deltaPercent, projectedPercent, runsOutAt))

enum class QuotaPaceStatus {
    unavailable,  // no length, no reset, or the reset has passed
    tooEarly,     // less than a tenth of the window has elapsed: a pace would mislead
    measured,
};

// Whether `window` has a pace at `now`.
QuotaPaceStatus quotaPaceStatus(const QuotaWindow& window, Date now);
// The pace of `window` at `now`; none unless quotaPaceStatus is measured.
std::optional<QuotaPace> quotaPace(const QuotaWindow& window, Date now);

}  // namespace gaugepoint
