#include <gtest/gtest.h>
#include <pty.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "CommandRunner.hpp"
#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/platform/Text.hpp"

namespace gaugepoint {
namespace {

using testing::gaugepoint;

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kAddressSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kAddressSanitizer = true;
#else
constexpr bool kAddressSanitizer = false;
#endif
#else
constexpr bool kAddressSanitizer = false;
#endif

// Runs the command on a pseudo-terminal 100 columns wide with `environment` added; returns what
// the terminal showed.
std::string onTerminal(const std::vector<std::string>& args, const std::vector<std::string>& environment) {
    winsize size{};
    size.ws_col = 100;
    size.ws_row = 30;
    int master = -1;
    std::fflush(nullptr);
    const pid_t pid = ::forkpty(&master, nullptr, nullptr, &size);
    if (pid == 0) {
        ::unsetenv("COLUMNS");
        ::unsetenv("NO_COLOR");
        for (const auto& variable : environment) ::putenv(const_cast<char*>(variable.c_str()));
        std::vector<char*> argv{const_cast<char*>(GAUGEPOINT_BINARY)};
        for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        ::execv(GAUGEPOINT_BINARY, argv.data());
        ::_exit(127);
    }
    std::string shown;
    char buffer[4096];
    for (ssize_t n; (n = ::read(master, buffer, sizeof buffer)) > 0;) shown.append(buffer, std::size_t(n));
    ::waitpid(pid, nullptr, 0);
    ::close(master);
    return shown;
}

std::size_t widestLine(const std::string& text) {
    std::size_t widest = 0, start = 0;
    for (std::size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        widest = std::max(widest, displayWidth(std::string_view(text).substr(start, end - start)));
    }
    return widest;
}

class Usability : public ::testing::Test {
protected:
    Usability() {
        ::setenv("XDG_CONFIG_HOME", (dir / "config").c_str(), 1);
        ::setenv("XDG_DATA_HOME", (dir / "data").c_str(), 1);
        ::unsetenv("COLUMNS");
    }
    std::vector<std::string> sample(std::vector<std::string> args) const {
        args.insert(args.end(), {"--app-group-dir", (dir / "group").string()});
        for (const char* tool : {"claude", "codex", "gemini"}) {
            args.insert(args.end(), {std::string("--") + tool + "-dir", testing::testData("logs").string() + "/" + tool});
        }
        return args;
    }
    testing::ScratchDirectory dir;
};

TEST_F(Usability, UsageErrorsAreOneLineInOurWordsWithAnExample) {
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"sessions", "list", "--limit", "-1"}, "--limit takes a whole number from 1 (got \"-1\"), e.g. --limit 20"},
        {{"ledger", "summary", "--days", "0"}, "--days takes a whole number from 1 to 36600 (got \"0\"), e.g. --days 7"},
        {{"sessions", "list", "--limit", "1.5"}, "--limit takes a whole number from 1 (got \"1.5\"), e.g. --limit 20"},
        {{"report", "blocks", "--provider", "claude", "--provider", "codex"},
         "blocks are one tool's: give one --provider, e.g. --provider claude"},
        {{"report", "daily", "--since"}, "--since needs a value, e.g. --since DAY"},
        {{"widget", "extra"}, "unexpected argument 'extra' to widget"},
        {{"widget", "--format", "xml"}, "--format takes text, json, waybar or line (got \"xml\"), e.g. --format text"},
        {{"reprot"}, "unknown command 'reprot'; did you mean 'report'?"},
        {{"widgets"}, "unknown command 'widgets'; did you mean 'widget'?"},
        {{"session", "list"}, "unknown command 'session'; did you mean 'sessions'?"},
        {{"report", "dialy"}, "unknown command 'report dialy'; did you mean 'report daily'?"},
        {{"report", "daily", "--since", "2026-13-01"},
         "--since takes a day: YYYY-MM-DD, YYYYMMDD, today or yesterday (got \"2026-13-01\"), e.g. --since 2026-11-01"},
        {{"report", "daily", "--timezone", ""},
         "--timezone takes a time zone such as UTC or Europe/Berlin (got \"\"), e.g. --timezone UTC"},
        {{"report", "blocks", "--no-scan", "--now", "1970-01-01T00:00:00Z"},
         "--now: expected a moment between 2000 and 2099, got \"1970-01-01T00:00:00Z\""},
    };
    for (const auto& [args, message] : cases) {
        const auto result = gaugepoint(args);
        EXPECT_EQ(result.exitCode, 2) << message;
        EXPECT_EQ(result.err, "gaugepoint: " + message + " (see --help)\n");
    }
    EXPECT_EQ(gaugepoint({"version"}).out, gaugepoint({"--version"}).out);
    EXPECT_EQ(gaugepoint({"help", "report"}).out, gaugepoint({"report", "--help"}).out);
    EXPECT_EQ(gaugepoint({"help"}).exitCode, 0);
    ::setenv("TZ", "Mars/Olympus", 1);
    EXPECT_EQ(gaugepoint({"report", "daily", "--no-scan"}).exitCode, 2);
    ::setenv("TZ", "UTC", 1);
}

TEST_F(Usability, TablesFitTheTerminalAndPipesKeepEveryColumn) {
    ASSERT_EQ(gaugepoint(sample({"scan", "--quiet"})).exitCode, 0);
    const std::vector<std::vector<std::string>> tables{{"report", "daily", "--no-scan"},
                                                       {"report", "session", "--no-scan"},
                                                       {"registry", "list"},
                                                       {"sessions", "list"}};
    for (auto args : tables) {
        args.insert(args.end(), {"--app-group-dir", (dir / "group").string()});
        const auto piped = gaugepoint(args);
        EXPECT_GT(widestLine(piped.out), 100u) << args[0] << " " << args[1];
        ::setenv("COLUMNS", "80", 1);
        const auto narrow = gaugepoint(args);
        ::unsetenv("COLUMNS");
        EXPECT_LE(widestLine(narrow.out), 80u) << narrow.out;
        // The same rows; only a footnote may take a second line.
        EXPECT_LE(std::count(narrow.out.begin(), narrow.out.end(), '\n') - std::count(piped.out.begin(), piped.out.end(), '\n'), 1);
        args.push_back("--wide");
        ::setenv("COLUMNS", "80", 1);
        EXPECT_EQ(gaugepoint(args).out, piped.out);
        ::unsetenv("COLUMNS");
    }
    const auto compact = gaugepoint({"report", "daily", "--no-scan", "--compact", "--app-group-dir", (dir / "group").string()});
    EXPECT_EQ(compact.out.find("Cache read"), std::string::npos);
    EXPECT_NE(compact.out.find("Total tokens"), std::string::npos);
}

TEST_F(Usability, ColourOnATerminalOnlyAndNeverUnderNoColor) {
    ASSERT_EQ(gaugepoint(sample({"scan", "--quiet"})).exitCode, 0);
    const std::vector<std::string> report{"report", "daily", "--no-scan", "--app-group-dir", (dir / "group").string()};
    const std::string home = "XDG_DATA_HOME=" + (dir / "data").string();
    const auto coloured = onTerminal(report, {home});
    EXPECT_NE(coloured.find("\033[1m"), std::string::npos) << coloured;       // header and totals
    EXPECT_NE(coloured.find("\033[33m*\033[0m"), std::string::npos) << coloured;  // the unpriced mark
    EXPECT_LE(widestLine(coloured), 100u + 20u);  // fitted to the 100 columns (the codes take none)
    EXPECT_EQ(onTerminal(report, {home, "NO_COLOR=1"}).find('\033'), std::string::npos);
    auto noColor = report;
    noColor.push_back("--no-color");
    EXPECT_EQ(onTerminal(noColor, {home}).find('\033'), std::string::npos);
    EXPECT_EQ(gaugepoint(report).out.find('\033'), std::string::npos);  // a pipe
}

TEST_F(Usability, DatesAndFlagsAsOtherToolsTakeThem) {
    ASSERT_EQ(gaugepoint(sample({"scan", "--quiet"})).exitCode, 0);
    const auto run = [&](std::vector<std::string> args) {
        args.insert(args.end(), {"--no-scan", "--app-group-dir", (dir / "group").string()});
        return gaugepoint(args);
    };
    const auto compactDay = run({"report", "daily", "-s", "20261105", "-u", "20261105", "-z", "utc", "-j"});
    ASSERT_EQ(compactDay.exitCode, 0) << compactDay.err;
    const auto days = json::parse(compactDay.out).at("daily").as_array();
    ASSERT_EQ(days.size(), 1u);
    EXPECT_EQ(days[0].at("date").as_string(), "2026-11-05");
    EXPECT_EQ(run({"report", "daily", "--since", "2026-11-05", "--until", "2026-11-05", "--timezone", "UTC", "--json"}).out,
              compactDay.out);
    const auto lastTwo = json::parse(run({"report", "daily", "--last", "2", "--now", "2026-11-06T12:00:00Z", "-z", "UTC", "-j"}).out);
    EXPECT_EQ(lastTwo.at("daily").as_array().size(), 2u);
    const auto yesterday = json::parse(run({"report", "daily", "-s", "yesterday", "-u", "yesterday", "--now",
                                            "2026-11-06T12:00:00Z", "-z", "UTC", "-j"}).out);
    EXPECT_EQ(yesterday.at("daily").at(0).at("date").as_string(), "2026-11-05");
    EXPECT_EQ(run({"report", "daily", "--last", "2", "--since", "2026-11-01"}).exitCode, 2);
}

TEST_F(Usability, EmptyResultsSayWhereTheyLooked) {
    const auto missing = gaugepoint({"scan", "--app-group-dir", (dir / "group").string(), "--claude-dir", "/nonexistent",
                                     "--codex-dir", testing::testData("logs").string() + "/codex"});
    EXPECT_EQ(missing.exitCode, 0);
    EXPECT_NE(missing.err.find("--claude-dir /nonexistent is not a directory"), std::string::npos) << missing.err;
    const auto none = gaugepoint({"report", "daily", "--since", "2030-01-01", "--app-group-dir", (dir / "group").string(),
                                  "--claude-dir", (dir / "none").string()});
    EXPECT_EQ(none.out.rfind("No usage found in " + (dir / "none").string() + ", ", 0), 0u) << none.out;
    const auto store = gaugepoint({"sources", "list", "--app-group-dir", "/proc/gaugepoint"});
    EXPECT_EQ(store.err, "gaugepoint: cannot create or write the store directory /proc/gaugepoint\n");
    const auto french = gaugepoint({"widget", "--lang", "fr", "--app-group-dir", (dir / "group").string()});
    EXPECT_NE(french.err.find("--lang fr is not available; showing English"), std::string::npos) << french.err;
}

TEST_F(Usability, CountingAndEncodingStreamWhateverTheInputSize) {
    // 300 MiB through a 160 MiB address-space limit: neither command holds its input.
    const auto limited = [&](const std::string& command) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            // AddressSanitizer reserves terabytes of address space up front: there only the
            // figures are checked, the limit proves nothing.
            if (!kAddressSanitizer) {
                const rlimit limit{160u << 20, 160u << 20};
                ::setrlimit(RLIMIT_AS, &limit);
            }
            ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            ::_exit(127);
        }
        int status = 0;
        ::waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
    };
    const std::string binary = GAUGEPOINT_BINARY;
    const std::string line = "the quota window resets at noon";  // 32 bytes with its line end
    const auto lines = [&](std::int64_t n) { return "yes '" + line + "' | head -c " + std::to_string(32 * n); };
    EXPECT_EQ(limited(lines(9'830'400) + " | " + binary + " tokens count --json > " + (dir / "count").string()), 0);
    // The count adds up as the whole text's would: n lines of r tokens, less the trimmed last line end.
    const auto small = json::parse(gaugepoint({"tokens", "count", "--json", "-"}, [&] {
                                       std::string text;
                                       for (int i = 0; i < 1000; ++i) text += line + "\n";
                                       return text;
                                   }()).out);
    const std::int64_t perLine = (small.at("rawCount").as_int64() + 1) / 1000;
    EXPECT_EQ(json::parse(testing::readFile(dir / "count")).at("rawCount").as_int64(), perLine * 9'830'400 - 1);

    EXPECT_EQ(limited(lines(9'830'400) + " | " + binary + " blob encode -o " + (dir / "blob").string() + " 2>/dev/null"), 0);
    EXPECT_LT(std::filesystem::file_size(dir / "blob"), 1u << 20);
    EXPECT_EQ(limited(binary + " lzfse decompress -i " + (dir / "blob").string() + " | wc -c > " + (dir / "size").string()), 0);
    EXPECT_EQ(testing::readFile(dir / "size"), "314572800\n");
}

}  // namespace
}  // namespace gaugepoint
