#pragma once

#include <boost/describe/class.hpp>
#include <boost/describe/enum.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "gaugepoint/platform/Date.hpp"
#include "gaugepoint/platform/Hashing.hpp"

namespace gaugepoint {

// What kind of limit a window is. JSON: the enumerator names.
enum class QuotaWindowSemantic { rollingSession, fixedCycle, usageCategory, perModel, creditsBalance, generic };
BOOST_DESCRIBE_ENUM(QuotaWindowSemantic, rollingSession, fixedCycle, usageCategory, perModel, creditsBalance, generic)

// One rate-limit window of a provider. Equality and hashing cover all nine fields.
struct QuotaWindow {
    std::string id;
    std::string label;
    double usedPercent = 0;  // nominally 0...100; other values are kept as they are
    std::optional<Date> resetsAt;
    std::optional<std::int64_t> windowMinutes;  // 300 for five hours, 10080 for a week
    std::optional<std::string> sourceDescription;
    std::int64_t importance = 0;  // lower is more important
    QuotaWindowSemantic semantic = QuotaWindowSemantic::generic;
    std::optional<std::string> modelSlug;

    // usedPercent / 100 clamped to 0...1, for bars and gauges.
    double progress() const;
    // 100 - usedPercent, floored at 0 and deliberately not capped at 100.
    double remainingPercent() const;
    // The short label of compact widgets: the model slug, the window length ("5h", "1w") or the label.
    std::string widgetLabel() const;
    // The label for details in `language` ("Session 5h", "周期 1w", "Credits", ...).
    std::string localizedLabel(std::string_view language) const;

    bool operator==(const QuotaWindow&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaWindow, (),
                      (id, label, usedPercent, resetsAt, windowMinutes, sourceDescription, importance, semantic,
                       modelSlug))

}  // namespace gaugepoint

GAUGEPOINT_DECLARE_HASH(gaugepoint::QuotaWindow);
