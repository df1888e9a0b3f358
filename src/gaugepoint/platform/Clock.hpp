#pragma once

#include <functional>

#include "gaugepoint/platform/Date.hpp"

namespace gaugepoint {

// Where stores and services take "now" from, so tests and --now can pin time.
class Clock {
public:
    // The system clock.
    Clock();
    // A clock that always answers `fixed`.
    static Clock fixedAt(Date fixed);
    // Any source of time; `source` must be callable from any thread.
    explicit Clock(std::function<Date()> source);

    Date now() const { return source_(); }

private:
    std::function<Date()> source_;
};

}  // namespace gaugepoint
