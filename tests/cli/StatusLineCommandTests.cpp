#include <gtest/gtest.h>
#include <sqlite3.h>

#include <chrono>
#include <cstdlib>
#include <future>

#include "CommandRunner.hpp"
#include "gaugepoint/platform/Json.hpp"

namespace gaugepoint {
namespace {

using testing::gaugepoint;

// Claude Code's status-line input as of the real clock (a reading is dated when it arrives).
std::string statusInput(double fiveHour, double sevenDay, std::int64_t fiveHourReset, std::int64_t sevenDayReset) {
    return R"({"session_id":"5f0c","transcript_path":"/nonexistent/5f0c.jsonl","cwd":"/home/dev/app",
      "version":"2.1.110","model":{"id":"claude-opus-4-1-20250805","display_name":"Opus 4.1"},
      "cost":{"total_cost_usd":1.25},"context_window":{"context_window_size":200000,"used_percentage":12},
      "rate_limits":{"five_hour":{"used_percentage":)" + std::to_string(fiveHour) + R"(,"resets_at":)" +
           std::to_string(fiveHourReset) + R"(},"seven_day":{"used_percentage":)" + std::to_string(sevenDay) +
           R"(,"resets_at":)" + std::to_string(sevenDayReset) + "}}}";
}

std::int64_t epochNow() {
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch()).count();
}

class StatusLineCommand : public ::testing::Test {
protected:
    StatusLineCommand() {
        ::setenv("XDG_CONFIG_HOME", (dir / "config").c_str(), 1);
        ::setenv("XDG_DATA_HOME", (dir / "data").c_str(), 1);
        ::unsetenv("NO_COLOR");
    }
    testing::CommandResult run(std::vector<std::string> args, const std::string& input) const {
        args.insert(args.begin(), "statusline");
        args.insert(args.end(), {"--app-group-dir", (dir / "group").string(), "--lang", "en"});
        return gaugepoint(args, input);
    }
    testing::ScratchDirectory dir;
    const std::int64_t now = epochNow();
};

TEST_F(StatusLineCommand, EveryInputGivesALineAndTheOfficialWindowsReachTheWidget) {
    const auto reading = statusInput(23.5, 41.25, now + 2 * 3600, now + 3 * 86400);
    const auto first = run({"--format", "plain"}, reading);
    ASSERT_EQ(first.exitCode, 0) << first.err;
    EXPECT_EQ(first.out.rfind("Opus 4.1 · ctx 12% · 5h 24% ↺", 0), 0u) << first.out;
    EXPECT_NE(first.out.find(" · wk 41% · "), std::string::npos) << first.out;
    EXPECT_NE(first.out.find(" · $1.25"), std::string::npos) << first.out;
    EXPECT_TRUE(first.err.empty()) << first.err;

    // Without rate limits (an API-key account), an older version, garbage, nothing: a line, exit 0.
    const struct {
        std::string input;
        std::string line;
        bool complains;
    } cases[] = {
        {R"({"model":{"display_name":"Sonnet 4.5"},"context_window":{"used_percentage":3}})", "Sonnet 4.5 · ctx 3%", false},
        {R"({"model":{"id":"claude-sonnet-4-5-20250929"},"cost":{"total_cost_usd":0.5}})", "sonnet-4-5 · 5h", false},
        {"not json at all", "5h 24%", true},
        {"", "5h 24%", true},
    };
    for (const auto& c : cases) {
        const auto result = run({"--format", "plain"}, c.input);
        EXPECT_EQ(result.exitCode, 0) << c.input;
        EXPECT_EQ(result.out.rfind(c.line, 0), 0u) << c.input << " -> " << result.out;
        EXPECT_EQ(std::count(result.out.begin(), result.out.end(), '\n'), 1) << result.out;
        EXPECT_EQ(!result.err.empty(), c.complains) << result.err;
    }

    const auto widget = gaugepoint({"widget", "--format", "json", "--app-group-dir", (dir / "group").string()});
    ASSERT_EQ(widget.exitCode, 0) << widget.err;
    const auto claude = json::parse(widget.out).at("providers").at(0);
    EXPECT_EQ(claude.at("id").as_string(), "claude");
    const auto& windows = claude.at("windows").as_array();
    ASSERT_EQ(windows.size(), 2u);
    EXPECT_EQ(windows[0].at("usedPercent").to_number<double>(), 23.5);
    EXPECT_EQ(windows[0].at("resetsAt"), json::parse('"' + formatISO8601(dateFromSeconds(double(now + 2 * 3600))) + '"'));
    EXPECT_EQ(windows[0].at("reading").as_string(), "official");
    EXPECT_EQ(windows[1].at("usedPercent").to_number<double>(), 41.25);
    EXPECT_EQ(windows[1].at("label").as_string(), "1w");
    EXPECT_FALSE(claude.at("stale").as_bool());
}

TEST_F(StatusLineCommand, ColourOnlyWhenAskedOrOnATerminalAndJsonForScripts) {
    const auto reading = statusInput(91, 20, now + 3600, now + 5 * 86400);
    EXPECT_NE(run({"--format", "ansi"}, reading).out.find("\033[31m5h 91%"), std::string::npos);  // red from 85 %
    EXPECT_EQ(run({}, reading).out.find('\033'), std::string::npos);                             // a pipe: plain
    const auto doc = json::parse(run({"--format", "json"}, reading).out);
    EXPECT_EQ(doc.at("fiveHour").at("usedPercent").to_number<double>(), 91);
    EXPECT_EQ(doc.at("sessionCostUSD").to_number<double>(), 1.25);
    EXPECT_EQ(run({"--template", "{model}|{weekly}"}, reading).out, "Opus 4.1|wk 20%\n");
    EXPECT_EQ(run({"--format", "xml"}, reading).exitCode, 2);
    const auto chinese = gaugepoint({"statusline", "--format", "plain", "--lang", "zh-Hans", "--app-group-dir",
                                     (dir / "group").string()},
                                    reading);
    EXPECT_NE(chinese.out.find("5小时 91%"), std::string::npos) << chinese.out;
}

TEST_F(StatusLineCommand, ConcurrentCallsAllAnswerAndALockedStoreDropsTheReadingInTime) {
    // Eight Claude Code windows at once, each with its own figure.
    std::vector<std::future<testing::CommandResult>> calls;
    for (int i = 0; i < 8; ++i) {
        calls.push_back(std::async(std::launch::async, [this, i] {
            return run({"--format", "plain"}, statusInput(10 + i, 30, now + 3600, now + 86400));
        }));
    }
    for (auto& call : calls) {
        const auto result = call.get();
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_EQ(result.out.rfind("Opus 4.1 · ctx 12% · 5h ", 0), 0u) << result.out;
    }
    const auto sources = json::parse(
        gaugepoint({"sources", "list", "--json", "--app-group-dir", (dir / "group").string()}).out);
    ASSERT_EQ(sources.at("entries").as_array().size(), 1u);
    const double stored = sources.at("entries").at(0).at("snapshot").at("providers").at(0).at("windows").at(0)
                              .at("usedPercent").to_number<double>();
    EXPECT_TRUE(stored >= 10 && stored <= 17) << stored;

    // Another process holds the source store: the reading is dropped, the line still comes at once.
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open((dir / "group" / "quota-source-snapshots.sqlite").c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
    const auto started = std::chrono::steady_clock::now();
    const auto locked = run({"--format", "plain"}, statusInput(99, 30, now + 3600, now + 86400));
    const auto took = std::chrono::steady_clock::now() - started;
    sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
    sqlite3_close(db);
    EXPECT_EQ(locked.exitCode, 0);
    EXPECT_EQ(locked.out.rfind("Opus 4.1 · ctx 12%", 0), 0u) << locked.out;
    EXPECT_NE(locked.err.find("not stored"), std::string::npos) << locked.err;
    EXPECT_LT(took, std::chrono::seconds(1));
}

}  // namespace
}  // namespace gaugepoint
