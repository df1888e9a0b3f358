#pragma once

// Plain-text and status-bar renderings of a widget view.

#include <optional>
#include <string>

#include "gaugepoint/widgets/QuotaWidgetViewModel.hpp"

namespace gaugepoint::QuotaWidgetText {

// One line per provider, columns aligned for a terminal: name, the short label of the window
// with the least left, what is left, when it refreshes, credits or balance where the provider
// has them, then its pace and, for a stale reading, its age:
//   "Claude      5h  58% left  ·  refresh in 2h  ·  12% ahead"
// With `aligned` false the columns are separated by single blanks (for proportional fonts).
std::string providerLines(const QuotaWidgetView& view, bool aligned = true);

// A Waybar custom module: the most constrained provider in short form, every provider in the
// tooltip, a CSS class by the lowest remaining percent (critical <= 10, warning <= 25, else ok)
// and that percent as an integer 0...100 (absent when no provider has a window); `stale` when
// that provider's reading is older than the freshness threshold.
struct WaybarModule {
    std::string text;
    std::string tooltip;
    std::string cssClass;
    std::optional<int> percentage;
    bool stale = false;
};
WaybarModule waybarModule(const QuotaWidgetView& view);

// One short line for tmux, i3blocks or Polybar: the most constrained provider with what is left
// and when it refreshes ("Codex 5h 12% left · in 3h"); "-" when there is nothing to show.
std::string statusLine(const QuotaWidgetView& view);

// The module as the one-line JSON object Waybar reads: {"text","tooltip","class","percentage"};
// "class" is ["<class>", "stale"] for a stale reading.
std::string waybarJSON(const WaybarModule& module);

}  // namespace gaugepoint::QuotaWidgetText
