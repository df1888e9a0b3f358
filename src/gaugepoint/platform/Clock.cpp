#include "gaugepoint/platform/Clock.hpp"

#include <chrono>

namespace gaugepoint {

Clock::Clock() : source_([] { return Date{std::chrono::system_clock::now()}; }) {}

Clock::Clock(std::function<Date()> source) : source_(std::move(source)) {}

Clock Clock::fixedAt(Date fixed) {
    return Clock{[fixed] { return fixed; }};
}

}  // namespace gaugepoint
