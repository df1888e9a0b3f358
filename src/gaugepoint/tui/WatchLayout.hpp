#pragma once

// The watch view laid out on a grid: boxed panels (quota cards; five-hour blocks beside today;
// sessions of the last hour; other machines) between a header and a footer, or, up to 60x15,
// a compact single column without boxes. The plain-text form of `watch --once` is the same
// layout at its natural height.

#include <string>

#include "gaugepoint/tui/TextCanvas.hpp"
#include "gaugepoint/tui/WatchModel.hpp"

namespace gaugepoint::tui {

enum class WatchPanel { quota, blocks, today, sessions, machines };

// What the person chose on screen, beyond the model.
struct WatchViewState {
    WatchPanel focus = WatchPanel::quota;
    bool help = false;  // the key overlay is open
};

// Up to 60 columns or 15 rows the compact layout is used: boxes would leave no room for figures.
constexpr int kCompactWidth = 60;
constexpr int kCompactHeight = 15;

// The panels shown for `model`, in focus order (other machines only when there are some).
std::vector<WatchPanel> watchPanels(const WatchModel& model);

// The view in exactly width x height cells.
TextCanvas layoutWatch(const WatchModel& model, int width, int height, const WatchViewState& state);

// The view `width` columns wide and as tall as its content, as text (compact up to 60 columns).
std::string watchPlainText(const WatchModel& model, int width);

}  // namespace gaugepoint::tui
