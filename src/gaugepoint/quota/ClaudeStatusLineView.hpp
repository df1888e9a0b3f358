#pragma once

// What `gaugepoint statusline` shows in Claude Code's status line: the model, how full its
// context is, Claude's five-hour and weekly windows as of now with a pace mark, this session's
// cost and today's cost of every tool. Its JSON form is the `--format json` document.

#include <boost/describe/class.hpp>

#include <optional>
#include <string>
#include <string_view>

#include "gaugepoint/quota/ClaudeStatusLineInput.hpp"
#include "gaugepoint/quota/QuotaReading.hpp"

namespace gaugepoint {

struct ClaudeStatusLineWindow {
    double usedPercent = 0;  // as of now: 0 once the reset has passed
    std::optional<Date> resetsAt;
    bool estimated = false;
    bool resetPassed = false;
    std::optional<QuotaPace> pace;
    bool operator==(const ClaudeStatusLineWindow&) const = default;
};
BOOST_DESCRIBE_STRUCT(ClaudeStatusLineWindow, (), (usedPercent, resetsAt, estimated, resetPassed, pace))

struct ClaudeStatusLineView {
    std::string language;
    std::optional<std::string> model;         // short name: "Opus 4.1"
    std::optional<double> contextPercent;     // how full the model's context is
    std::optional<ClaudeStatusLineWindow> fiveHour;
    std::optional<ClaudeStatusLineWindow> sevenDay;
    std::optional<Date> observedAt;           // when Claude's windows were read
    std::optional<std::int64_t> ageSeconds;
    bool stale = false;
    std::optional<double> sessionCostUSD;     // Claude Code's own estimate for this session
    std::optional<double> todayCostUSD;       // every tool, today in the local zone
    std::optional<std::string> paceText;      // of the window that constrains most
    bool runsOut = false;                     // that window's pace runs out before its reset

    // The view of `input` with Claude's provider of a snapshot generated at `generatedAt` (none:
    // no quota known) at `now`.
    static ClaudeStatusLineView make(const ClaudeStatusLineInput& input, const ProviderQuota* claude, Date generatedAt,
                                     Date now, std::string_view language, const QuotaFreshnessPolicy& policy);
};
BOOST_DESCRIBE_STRUCT(ClaudeStatusLineView, (),
                      (language, model, contextPercent, fiveHour, sevenDay, observedAt, ageSeconds, stale,
                       sessionCostUSD, todayCostUSD, paceText, runsOut))

namespace ClaudeStatusLineText {

enum class Style { plain, ansi };

// The named parts of the line, for templates: {model} {context} {five_hour} {weekly} {pace}
// {session_cost} {today_cost} {age}; a part with nothing to show is empty.
std::string part(const ClaudeStatusLineView& view, std::string_view name, Style style);
// The names template placeholders may use.
const std::vector<std::string_view>& partNames();

// The line: every non-empty part in the order above joined by " · ", or `templateText` with
// its placeholders replaced. "-" when there is nothing at all.
std::string line(const ClaudeStatusLineView& view, Style style, std::string_view templateText = {});

// A line made from the input alone, for when the stores cannot be read.
std::string fallbackLine(const ClaudeStatusLineInput& input, std::string_view language);

}  // namespace ClaudeStatusLineText
}  // namespace gaugepoint
