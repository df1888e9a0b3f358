#pragma once

// Where a window's figure came from. Kept in the window's sourceDescription, so every store,
// sync channel and companion app carries it unchanged: a window is an estimate of ours when its
// description begins with "estimated"; anything else is a reading the service itself reported
// (through the companion app, a tool's log or Claude Code's status line).

#include <string_view>

#include "gaugepoint/model/QuotaWindow.hpp"

namespace gaugepoint::QuotaReadingOrigin {

// Claude's five-hour and weekly windows as Claude Code reported them to its status-line command.
constexpr std::string_view claudeStatusLine = "Claude Code status line";
// A five-hour window measured against a limit that gaugepoint estimated from past blocks.
constexpr std::string_view estimatedFromBlocks = "estimated from past five-hour blocks";
// A five-hour window measured against the block token limit the user set.
constexpr std::string_view estimatedFromUserLimit = "estimated from the block token limit you set";

// True when `window` holds an estimate rather than a reported reading.
inline bool isEstimated(const QuotaWindow& window) {
    return window.sourceDescription && window.sourceDescription->starts_with("estimated");
}

}  // namespace gaugepoint::QuotaReadingOrigin
