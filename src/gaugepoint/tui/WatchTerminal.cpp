#include "gaugepoint/tui/WatchTerminal.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <exception>
#include <string>

#define NCURSES_WIDECHAR 1
#include <ncursesw/curses.h>

#include "gaugepoint/platform/Error.hpp"

namespace gaugepoint::tui {
namespace {

std::atomic<bool> gActive{false};
int gSignalPipe[2] = {-1, -1};
std::terminate_handler gPreviousTerminate = nullptr;

void onSignal(int number) {
    const int saved = errno;
    const auto byte = static_cast<unsigned char>(number);
    [[maybe_unused]] const auto written = ::write(gSignalPipe[1], &byte, 1);
    errno = saved;
}

// A crash must not leave the terminal without echo in the alternate screen: give it back, then
// die of the same signal.
void onFatalSignal(int number) {
    WatchTerminal::restore();
    ::signal(number, SIG_DFL);
    ::raise(number);
}

void onTerminate() {
    WatchTerminal::restore();
    if (gPreviousTerminate) gPreviousTerminate();
    std::abort();
}

// Curses colour pairs, one per cell style (pair 0 is the terminal's own colours).
short pairOf(CellStyle style) { return static_cast<short>(style) + 1; }

attr_t attributesOf(CellStyle style) {
    switch (style) {
        case CellStyle::dim: return A_DIM;
        case CellStyle::title: return A_BOLD;
        case CellStyle::focused: return A_BOLD;
        case CellStyle::mark: return A_BOLD;
        default: return A_NORMAL;
    }
}

void setUpColours() {
    if (!has_colors()) return;
    start_color();
    use_default_colors();
    const auto pair = [](CellStyle style, short foreground) { init_pair(pairOf(style), foreground, -1); };
    pair(CellStyle::normal, -1);
    pair(CellStyle::dim, -1);
    pair(CellStyle::title, COLOR_CYAN);
    pair(CellStyle::focused, COLOR_YELLOW);
    pair(CellStyle::good, COLOR_GREEN);
    pair(CellStyle::warn, COLOR_YELLOW);
    pair(CellStyle::bad, COLOR_RED);
    pair(CellStyle::mark, COLOR_MAGENTA);
}

// UTF-8 to the library's wide characters (UTF-32 on the systems this runs on).
std::wstring wide(const std::string& text) {
    std::wstring out;
    for (std::size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i]);
        std::size_t length = lead < 0x80 ? 1 : lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
        if (i + length > text.size()) length = 1;
        char32_t code = length == 1 ? lead : lead & (0x7F >> length);
        for (std::size_t k = 1; k < length; ++k) code = (code << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
        out.push_back(static_cast<wchar_t>(length == 1 && lead >= 0x80 ? U'?' : code));
        i += length;
    }
    return out;
}

}  // namespace

WatchTerminal::WatchTerminal() {
    if (::isatty(STDIN_FILENO) != 1 || ::isatty(STDOUT_FILENO) != 1) throw Error("watch needs a terminal");
    std::setlocale(LC_ALL, "");
    if (gSignalPipe[0] < 0) {
        if (::pipe(gSignalPipe) != 0) throw Error("cannot make the signal pipe of the watch view");
        for (const int end : gSignalPipe) {
            ::fcntl(end, F_SETFD, FD_CLOEXEC);
            ::fcntl(end, F_SETFL, ::fcntl(end, F_GETFL) | O_NONBLOCK);
        }
    }
    // newterm, unlike initscr, reports a terminal it cannot drive instead of exiting.
    screen_ = newterm(nullptr, stdout, stdin);
    if (!screen_) {
        const char* term = std::getenv("TERM");
        throw Error(std::string("cannot drive this terminal (TERM=") + (term ? term : "") + "); try TERM=xterm-256color");
    }
    set_term(screen_);
    gActive = true;
    std::atexit([] { WatchTerminal::restore(); });
    gPreviousTerminate = std::set_terminate(onTerminate);
    cbreak();  // Ctrl-C stays a signal, handled like SIGTERM
    noecho();
    nonl();
    keypad(stdscr, TRUE);
    nodelay(stdscr, TRUE);
    set_escdelay(25);
    curs_set(0);
    setUpColours();
    struct sigaction action {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGWINCH}) ::sigaction(number, &action, nullptr);
    for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) ::signal(number, onFatalSignal);
}

WatchTerminal::~WatchTerminal() {
    restore();
    delscreen(screen_);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGWINCH, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT}) {
        ::signal(number, SIG_DFL);
    }
    std::set_terminate(gPreviousTerminate);
}

void WatchTerminal::restore() noexcept {
    if (gActive.exchange(false)) {
        curs_set(1);
        endwin();
    }
}

int WatchTerminal::width() const { return COLS; }
int WatchTerminal::height() const { return LINES; }
int WatchTerminal::signalDescriptor() const { return gSignalPipe[0]; }

void WatchTerminal::resized() {
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 0 && size.ws_col > 0) {
        resize_term(size.ws_row, size.ws_col);
    }
    clearok(stdscr, TRUE);
}

void WatchTerminal::draw(const TextCanvas& canvas) {
    werase(stdscr);
    const int rows = std::min(canvas.height(), LINES);
    const int columns = std::min(canvas.width(), COLS);
    for (int y = 0; y < rows; ++y) {
        // The last cell of the screen is left alone: writing it would scroll some terminals.
        const int limit = y == LINES - 1 ? std::min(columns, COLS - 1) : columns;
        for (int x = 0; x < limit;) {
            const CellStyle style = canvas.at(x, y).style;
            const int start = x;
            std::string run;
            while (x < limit && canvas.at(x, y).style == style) run += canvas.at(x++, y).glyph;
            wattr_set(stdscr, attributesOf(style), has_colors() ? pairOf(style) : 0, nullptr);
            const auto text = wide(run);
            mvwaddnwstr(stdscr, y, start, text.c_str(), static_cast<int>(text.size()));
        }
    }
    wattr_set(stdscr, A_NORMAL, 0, nullptr);
    wnoutrefresh(stdscr);
    doupdate();
}

std::optional<int> WatchTerminal::key() {
    wint_t code = 0;
    const int kind = wget_wch(stdscr, &code);
    if (kind == ERR) return std::nullopt;
    return static_cast<int>(code);
}

}  // namespace gaugepoint::tui
