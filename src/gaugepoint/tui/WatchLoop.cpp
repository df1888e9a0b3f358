#include "gaugepoint/tui/WatchLoop.hpp"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>

#define NCURSES_WIDECHAR 1
#include <ncursesw/curses.h>

#include "gaugepoint/tui/WatchLayout.hpp"
#include "gaugepoint/tui/WatchTerminal.hpp"

namespace gaugepoint::tui {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds kStampPeriod{1000};
// A tool that writes its log in many small pieces would otherwise start an import per write:
// changes that come closer together than this are taken in one import.
constexpr std::chrono::milliseconds kRescanGap{250};

struct LoopState {
    WatchChoices choices;
    WatchViewState view;
    WatchModel model;
    std::string problem;  // the last rescan's failure, shown over the footer
    bool quit = false;
    bool rebuild = false;
    bool rescan = false;
    bool redraw = false;
};

void moveFocus(LoopState& state, int step) {
    const auto panels = watchPanels(state.model);
    auto at = std::find(panels.begin(), panels.end(), state.view.focus);
    const auto index = at == panels.end() ? 0 : at - panels.begin();
    const auto count = static_cast<std::ptrdiff_t>(panels.size());
    state.view.focus = panels[static_cast<std::size_t>(((index + step) % count + count) % count)];
    state.redraw = true;
}

void nextProvider(LoopState& state, const std::vector<std::string>& providers) {
    auto& current = state.choices.provider;
    if (!current) {
        if (!providers.empty()) current = providers.front();
    } else {
        const auto at = std::find(providers.begin(), providers.end(), *current);
        if (at == providers.end() || at + 1 == providers.end()) current.reset();
        else current = *(at + 1);
    }
    state.rebuild = true;
}

void onKey(LoopState& state, int key, const WatchLoopOptions& options) {
    if (state.view.help && key != 'q') {
        state.view.help = false;
        state.redraw = true;
        return;
    }
    switch (key) {
        case 'q': case 'Q': state.quit = true; break;
        case '\t': case KEY_RIGHT: case KEY_DOWN: moveFocus(state, 1); break;
        case KEY_BTAB: case KEY_LEFT: case KEY_UP: moveFocus(state, -1); break;
        case 'p': nextProvider(state, options.providers); break;
        case 'z': state.choices.utc = !state.choices.utc; state.rebuild = true; break;
        case 'l':
            state.choices.language = state.choices.language.starts_with("zh") ? "en" : "zh-Hans";
            state.rebuild = true;
            break;
        case 'r': state.rescan = true; break;
        case '?': state.view.help = true; state.redraw = true; break;
        default: break;
    }
}

void draw(WatchTerminal& terminal, const LoopState& state) {
    auto canvas = layoutWatch(state.model, terminal.width(), terminal.height(), state.view);
    if (!state.problem.empty()) canvas.put(0, canvas.height() - 1, state.problem + std::string(canvas.width(), ' '), CellStyle::bad);
    terminal.draw(canvas);
}

}  // namespace

void runWatchLoop(const WatchLoopOptions& options, const WatchHooks& hooks) {
    DirectoryWatcher watcher{options.logFolders, options.refresh};
    WatchTerminal terminal;
    LoopState state;
    state.choices = options.choices;
    const auto rescan = [&] {
        try {
            hooks.rescan();
            state.problem.clear();
        } catch (const std::exception& e) {
            state.problem = e.what();
        }
    };
    rescan();
    std::uint64_t stamp = hooks.storeStamp();
    state.model = hooks.build(state.choices);
    draw(terminal, state);
    auto nextStamp = Clock::now() + kStampPeriod;
    auto nextRefresh = Clock::now() + options.refresh;
    auto lastRescan = Clock::now();
    bool changePending = false;  // the logs changed; the import waits for the gap to pass
    while (!state.quit) {
        const auto now = Clock::now();
        auto wake = std::min(nextStamp, nextRefresh);
        if (changePending) wake = std::min(wake, lastRescan + kRescanGap);
        const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(wake - now).count();
        pollfd fds[3] = {{STDIN_FILENO, POLLIN, 0}, {terminal.signalDescriptor(), POLLIN, 0}, {watcher.descriptor(), POLLIN, 0}};
        const nfds_t count = watcher.live() ? 3 : 2;
        ::poll(fds, count, static_cast<int>(std::clamp<long long>(wait, 0, 60'000)));

        if (fds[1].revents & POLLIN) {
            unsigned char signal = 0;
            while (::read(terminal.signalDescriptor(), &signal, 1) == 1) {
                if (signal == SIGWINCH) {
                    terminal.resized();
                    state.redraw = true;
                } else {
                    state.quit = true;
                }
            }
        }
        if (fds[0].revents & POLLIN) {
            while (const auto key = terminal.key()) onKey(state, *key, options);
        }
        if (fds[0].revents & (POLLHUP | POLLERR)) state.quit = true;  // the terminal went away
        if (state.quit) break;
        if (watcher.changed()) changePending = true;
        if (changePending && Clock::now() - lastRescan >= kRescanGap) state.rescan = true;
        if (Clock::now() >= nextStamp) {
            nextStamp = Clock::now() + kStampPeriod;
            if (hooks.storeStamp() != stamp) state.rebuild = true;
        }
        if (Clock::now() >= nextRefresh) {
            nextRefresh = Clock::now() + options.refresh;
            state.rebuild = true;
            if (watcher.adoptNewRoots()) state.rescan = true;
        }
        if (state.rescan) {
            rescan();
            lastRescan = Clock::now();
            changePending = false;
            state.rebuild = true;
        }
        if (state.rebuild) {
            // Our own import changed the stamp too: take it now, so it does not count as another's.
            stamp = hooks.storeStamp();
            state.model = hooks.build(state.choices);
            state.redraw = true;
        }
        if (state.redraw) draw(terminal, state);
        state.rescan = state.rebuild = state.redraw = false;
    }
}

}  // namespace gaugepoint::tui
