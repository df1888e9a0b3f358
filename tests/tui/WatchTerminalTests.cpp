// `gaugepoint watch` in a real terminal: tmux runs a shell at 100x30, the test types into it
// and reads the screen back. Each test has its own tmux server and scratch copy of the sample
// logs, and waits for what it expects with a deadline instead of fixed sleeps.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <thread>

#include "CommandRunner.hpp"
#include "TestSupport.hpp"
#include "gaugepoint/platform/Text.hpp"

namespace gaugepoint {
namespace {

using gaugepoint::testing::ScratchDirectory;
using namespace std::chrono_literals;

const std::filesystem::path kExamples = GAUGEPOINT_EXAMPLES_DIR;
const char* const kPrompt = "gp-prompt$";

std::string quoted(const std::string& text) {
    std::string out = "'";
    for (const char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

// Runs `command` and returns what it printed.
std::string output(const std::string& command) {
    std::string text;
    if (FILE* pipe = ::popen(command.c_str(), "r")) {
        char buffer[4096];
        while (const auto n = std::fread(buffer, 1, sizeof buffer, pipe)) text.append(buffer, n);
        ::pclose(pipe);
    }
    return text;
}

bool tmuxInstalled() { return std::system("command -v tmux >/dev/null 2>&1") == 0; }

class Tmux {
public:
    explicit Tmux(const std::string& environment) : socket_("gp-watch-" + std::to_string(::getpid()) + "-" + std::to_string(++count_)) {
        tmux("new-session -d -x 100 -y 30 " + quoted("env " + environment + " PS1='" + kPrompt + " ' sh"));
    }
    ~Tmux() { tmux("kill-server"); }

    std::string tmux(const std::string& arguments) const { return output("tmux -L " + socket_ + " " + arguments + " 2>&1"); }
    void type(const std::string& text) const { tmux("send-keys -l " + quoted(text)); }
    void press(const std::string& key) const { tmux("send-keys " + key); }
    std::string screen() const { return tmux("capture-pane -p"); }

    // Polls the screen until `ready` holds or `limit` passes; the last screen is kept for messages.
    bool waitFor(const std::function<bool(const std::string&)>& ready, std::chrono::milliseconds limit = 5s) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        for (;;) {
            last = screen();
            if (ready(last)) return true;
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::this_thread::sleep_for(30ms);
        }
    }
    bool waitForText(const std::string& text, std::chrono::milliseconds limit = 5s) {
        return waitFor([&](const std::string& s) { return s.find(text) != std::string::npos; }, limit);
    }

    // The process the pane's shell runs in the foreground.
    pid_t child() const {
        const std::string shell = tmux("list-panes -F '#{pane_pid}'");
        std::ifstream children("/proc/" + std::to_string(std::stoi(shell)) + "/task/" + std::to_string(std::stoi(shell)) + "/children");
        pid_t pid = 0;
        children >> pid;
        return pid;
    }

    std::string last;

private:
    std::string socket_;
    static inline int count_ = 0;
};

// Every row of a box spans the 100 columns exactly.
bool boxesAligned(const std::string& screen) {
    std::size_t start = 0;
    bool any = false;
    while (start < screen.size()) {
        auto end = screen.find('\n', start);
        if (end == std::string::npos) end = screen.size();
        const std::string row = screen.substr(start, end - start);
        if (row.starts_with("┌") || row.starts_with("│") || row.starts_with("└")) {
            any = true;
            if (displayWidth(trimmed(row)) != 100) return false;
        }
        start = end + 1;
    }
    return any;
}

class WatchTerminal : public ::testing::Test {
protected:
    void SetUp() override {
        if (!tmuxInstalled()) GTEST_SKIP() << "tmux is not installed (scripts/bootstrap installs it): the terminal tests need it";
        std::filesystem::copy(kExamples / "logs", scratch / "logs", std::filesystem::copy_options::recursive);
    }

    // The watch command line over the scratch copy of the sample, as of just after its last events.
    std::string watchCommand(const std::string& extra = {}) const {
        const auto logs = scratch / "logs";
        return std::string(GAUGEPOINT_BINARY) + " --app-group-dir " + (scratch / "group").string() + " watch --claude-dir " +
               (logs / "claude").string() + " --codex-dir " + (logs / "codex").string() + " --gemini-dir " +
               (logs / "gemini").string() + " --now 2026-11-06T21:00:00Z" + extra;
    }
    std::string environment(const std::string& zone = "UTC") const {
        return "TZ=" + zone + " LC_ALL=C.UTF-8 XDG_CONFIG_HOME=" + (scratch / "config").string() +
               " XDG_DATA_HOME=" + (scratch / "data").string();
    }
    // Starts watch in the session's shell and waits for the sample's first screen.
    void start(Tmux& tmux, const std::string& extra = {}, const std::string& clock = "21:00:00") {
        ASSERT_TRUE(tmux.waitForText(kPrompt)) << tmux.last;
        tmux.type(watchCommand(extra));
        tmux.press("Enter");
        ASSERT_TRUE(tmux.waitFor([&](const std::string& s) {
            return s.find("Session 5h") != std::string::npos && s.find("32.5K tok") != std::string::npos &&
                   s.find("api.server") != std::string::npos && s.find("updated " + clock) != std::string::npos;
        }, 10s)) << tmux.last;
    }

    ScratchDirectory scratch;
};

// A Claude Code response line of the api.server session.
std::string claudeLine(const std::string& session, const std::string& cwd, const std::string& id, int outputTokens) {
    return R"({"parentUuid":null,"isSidechain":false,"userType":"external","cwd":")" + cwd + R"(","sessionId":")" + session +
           R"(","version":"2.0.22","message":{"id":"msg_)" + id + R"(","type":"message","role":"assistant","model":"claude-sonnet-4-5-20250929","content":[{"type":"text","text":"ok"}],"usage":{"input_tokens":1000,"cache_creation_input_tokens":0,"cache_read_input_tokens":0,"output_tokens":)" +
           std::to_string(outputTokens) + R"(}},"requestId":"req_)" + id + R"(","type":"assistant","uuid":"00000000-0000-4000-8000-)" + id +
           R"(","timestamp":"2026-11-06T20:50:00.000Z"})" + "\n";
}

TEST_F(WatchTerminal, FollowsAppendsAndNewFoldersWithinTwoSeconds) {
    Tmux tmux{environment()};
    start(tmux);
    const auto project = scratch / "logs/claude/projects/-home-dev-src-api-server";
    {
        std::ofstream log(project / "0992eb9e-6652-4513-a72c-3e3af4e31bdc.jsonl", std::ios::app);
        log << claudeLine("0992eb9e-6652-4513-a72c-3e3af4e31bdc", "/home/dev/src/api.server", "000000000001", 234'567);
    }
    auto appended = std::chrono::steady_clock::now();
    // 1,000 input and 234,567 output tokens: Claude's row of today.
    EXPECT_TRUE(tmux.waitForText("235.6K tok", 2s)) << tmux.last;
    EXPECT_LT(std::chrono::steady_clock::now() - appended, 2s);

    // A project folder made while the view is open.
    const auto fresh = scratch / "logs/claude/projects/-home-dev-src-brand-new";
    std::filesystem::create_directories(fresh);
    {
        std::ofstream log(fresh / "5e55a0e0-0000-4000-8000-000000000002.jsonl");
        log << claudeLine("5e55a0e0-0000-4000-8000-000000000002", "/home/dev/src/brand-new", "000000000002", 5'000);
    }
    EXPECT_TRUE(tmux.waitForText("brand-new", 2s)) << tmux.last;
}

TEST_F(WatchTerminal, ResizingTo60x15GivesTheCompactLayoutAndBack) {
    Tmux tmux{environment()};
    start(tmux);
    tmux.tmux("resize-window -x 60 -y 15");
    EXPECT_TRUE(tmux.waitFor([](const std::string& s) {
        return s.find("┌") == std::string::npos && s.find("Codex 5h") != std::string::npos &&
               s.find("q quit · ? help") != std::string::npos;
    })) << tmux.last;
    tmux.tmux("resize-window -x 100 -y 30");
    EXPECT_TRUE(tmux.waitFor(boxesAligned)) << tmux.last;
}

TEST_F(WatchTerminal, KeysSwitchLanguageToolAndZone) {
    Tmux tmux{environment("Europe/Berlin")};
    start(tmux, " --provider codex --provider claude", "22:00:00");
    tmux.type("l");
    EXPECT_TRUE(tmux.waitForText("额度")) << tmux.last;
    EXPECT_TRUE(boxesAligned(tmux.last)) << "Chinese text must not shift the box edges:\n" << tmux.last;
    tmux.type("p");  // from every tool to the first named
    EXPECT_TRUE(tmux.waitForText("codex · Europe/Berlin")) << tmux.last;
    tmux.type("z");
    EXPECT_TRUE(tmux.waitForText("codex · UTC · 2026-11-06 21:00:00")) << tmux.last;
    tmux.type("?");
    EXPECT_TRUE(tmux.waitForText("Ctrl-C")) << tmux.last;
}

TEST_F(WatchTerminal, QuitCtrlCAndSigtermGiveTheShellBackRestored) {
    for (const std::string way : {"q", "C-c", "SIGTERM"}) {
        Tmux tmux{environment()};
        start(tmux);
        if (way == "SIGTERM") {
            const pid_t watch = tmux.child();
            ASSERT_GT(watch, 0);
            ::kill(watch, SIGTERM);
        } else {
            tmux.press(way);
        }
        // Back on the shell's own screen at a fresh prompt, echo on: the typed command shows,
        // then its output.
        ASSERT_TRUE(tmux.waitFor([](const std::string& s) {
            const auto end = s.find_last_not_of(" \n");
            return s.find("┌") == std::string::npos && end != std::string::npos &&
                   s.compare(end + 1 - std::strlen(kPrompt), std::strlen(kPrompt), kPrompt) == 0;
        })) << "after " << way << ":\n" << tmux.last;
        tmux.type("echo restored-$((40+2))");
        tmux.press("Enter");
        EXPECT_TRUE(tmux.waitFor([](const std::string& s) {
            return s.find("echo restored-$((40+2))") != std::string::npos && s.find("\nrestored-42") != std::string::npos;
        })) << "after " << way << ":\n" << tmux.last;
    }
}

TEST(WatchOnce, PrintsTheViewOnceAsPlainTextWithoutATerminal) {
    ScratchDirectory scratch;
    const auto logs = kExamples / "logs";
    const std::vector<std::string> command{"--app-group-dir", (scratch / "group").string(), "watch",
                                           "--claude-dir", (logs / "claude").string(), "--codex-dir", (logs / "codex").string(),
                                           "--gemini-dir", (logs / "gemini").string(), "--now", "2026-11-06T21:00:00Z"};
    auto once = command;
    once.push_back("--once");
    const auto printed = gaugepoint::testing::gaugepoint(once);
    ASSERT_EQ(printed.exitCode, 0) << printed.err;
    EXPECT_TRUE(printed.out.starts_with("gaugepoint watch  all tools · UTC · 2026-11-06 21:00:00\n")) << printed.out;
    EXPECT_NE(printed.out.find("Session 5h"), std::string::npos) << printed.out;
    EXPECT_EQ(printed.out.find('\x1b'), std::string::npos) << "no terminal codes in the plain form";
    // Standard input and output are files here, not a terminal: the same text, once.
    EXPECT_EQ(gaugepoint::testing::gaugepoint(command).out, printed.out);

    auto wrongZone = once;
    wrongZone.insert(wrongZone.end(), {"--timezone", "Mars/Olympus"});
    const auto refused = gaugepoint::testing::gaugepoint(wrongZone);
    EXPECT_EQ(refused.exitCode, 2);
    EXPECT_NE(refused.err.find("--timezone"), std::string::npos) << refused.err;
}

}  // namespace
}  // namespace gaugepoint
