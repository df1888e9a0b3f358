#pragma once

// The JSON object Claude Code writes to its status-line command's standard input. Every field
// may be missing (older versions send fewer) or of a wrong type; such a field reads as absent,
// so whatever is usable is used.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "gaugepoint/platform/Date.hpp"

namespace gaugepoint {

struct ClaudeRateLimitReading {
    double usedPercent = 0;  // 0...100 as sent
    std::optional<Date> resetsAt;
    bool operator==(const ClaudeRateLimitReading&) const = default;
};

struct ClaudeStatusLineInput {
    std::optional<std::string> sessionID;
    std::optional<std::string> transcriptPath;
    std::optional<std::string> cwd;  // workspace.current_dir, else cwd
    std::optional<std::string> version;
    std::optional<std::string> modelID;
    std::optional<std::string> modelDisplayName;
    std::optional<double> sessionCostUSD;          // cost.total_cost_usd, Claude Code's own estimate
    std::optional<double> contextUsedPercent;      // context_window.used_percentage
    std::optional<std::int64_t> contextWindowSize;  // context_window.context_window_size
    std::optional<ClaudeRateLimitReading> fiveHour;
    std::optional<ClaudeRateLimitReading> sevenDay;

    bool hasRateLimits() const { return fiveHour || sevenDay; }

    // Reads `text`. Never throws: what cannot be read is named in `problems` (one line each)
    // and left absent; an empty or non-JSON input gives an empty object.
    static ClaudeStatusLineInput parse(std::string_view text, std::vector<std::string>& problems);
};

}  // namespace gaugepoint
