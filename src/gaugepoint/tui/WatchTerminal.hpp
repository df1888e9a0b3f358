#pragma once

// The full-screen terminal of the watch view, through the wide-character curses library: one
// instance at a time owns the terminal and gives it back as it was on every way out: its
// destructor, exit() (atexit), an uncaught exception (std::terminate) and the fatal signals.
// SIGINT, SIGTERM, SIGHUP and SIGWINCH are not handled in place: each writes its number to a
// pipe that the event loop waits on with everything else.

#include <optional>

#include "gaugepoint/tui/TextCanvas.hpp"

struct screen;  // the curses library's SCREEN

namespace gaugepoint::tui {

class WatchTerminal {
public:
    // Takes over the terminal on standard input and output. Throws gaugepoint::Error when there
    // is none or the library cannot use it.
    WatchTerminal();
    ~WatchTerminal();
    WatchTerminal(const WatchTerminal&) = delete;
    WatchTerminal& operator=(const WatchTerminal&) = delete;

    int width() const;
    int height() const;
    // The read end of the signal pipe: one byte per signal, its number.
    int signalDescriptor() const;

    // Shows `canvas` (cells past the screen are left out).
    void draw(const TextCanvas& canvas);
    // The next key pressed, without waiting; curses key codes for arrows and Tab's 9.
    std::optional<int> key();
    // Takes the terminal's new size after SIGWINCH.
    void resized();

    // Gives the terminal back if a WatchTerminal holds it; safe to call more than once.
    static void restore() noexcept;

private:
    ::screen* screen_ = nullptr;  // the curses screen of this terminal
};

}  // namespace gaugepoint::tui
