#pragma once

// The live view's event loop: waits on the log folders' watcher, the keyboard, the signal pipe
// and a timer, and sleeps in poll() in between, so an idle view costs next to nothing. A change
// in the logs triggers an import and a redraw; a commit by another process (seen through the
// stores' change stamp, polled once a second) a redraw; the timer refreshes the clock-bound
// texts (countdowns, "as of ... ago").

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "gaugepoint/platform/DirectoryWatcher.hpp"
#include "gaugepoint/tui/WatchModel.hpp"

namespace gaugepoint::tui {

// What the keys change.
struct WatchChoices {
    std::optional<std::string> provider;  // none: every tool
    bool utc = false;                     // else the zone the view started in
    std::string language;
};

struct WatchHooks {
    // Imports what the logs added (and publishes, evaluating alerts). Throws on failure; the
    // footer shows the message.
    std::function<void()> rescan;
    // The model for `choices` at the present moment.
    std::function<WatchModel(const WatchChoices&)> build;
    // The stores' change stamp.
    std::function<std::uint64_t()> storeStamp;
};

struct WatchLoopOptions {
    std::vector<std::filesystem::path> logFolders;
    std::chrono::seconds refresh{30};  // clock-bound texts; also the rescan period without inotify
    WatchChoices choices;
    std::vector<std::string> providers;  // what `p` cycles through after "every tool"
};

// Runs the view on the terminal until `q`, Ctrl-C, SIGTERM or SIGHUP; the terminal is restored
// on return and on every failure path. Throws gaugepoint::Error when there is no usable terminal.
void runWatchLoop(const WatchLoopOptions& options, const WatchHooks& hooks);

}  // namespace gaugepoint::tui
