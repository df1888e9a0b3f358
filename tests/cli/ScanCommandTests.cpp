#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>

#include "CommandRunner.hpp"
#include "gaugepoint/platform/Json.hpp"

namespace gaugepoint {
namespace {

using testing::gaugepoint;

TEST(ScanCommand, SummarisesEachScanInOneLine) {
    testing::ScratchDirectory dir;
    const std::string logs = testing::testData("logs").string();
    const std::vector<std::string> args{"scan", "--app-group-dir", (dir / "g").string(), "--claude-dir", logs + "/claude",
                                        "--codex-dir", logs + "/codex", "--gemini-dir", logs + "/gemini"};
    const auto first = gaugepoint(args);
    EXPECT_EQ(first.exitCode, 0) << first.err;
    EXPECT_EQ(first.out, "34 files read, 0 unchanged · 32 new sessions, 0 updated · 3,703,351 tokens · 2 lines skipped\n");
    auto verbose = args;
    verbose.push_back("--verbose");
    EXPECT_EQ(gaugepoint(verbose).out, "0 files read, 34 unchanged · 0 new sessions, 0 updated · 0 tokens · 0 lines skipped\n");
    auto json = args;
    json.push_back("--json");
    const auto document = json::parse(gaugepoint(json).out).as_object();
    EXPECT_EQ(document.at("filesUnchanged"), 34);
    EXPECT_TRUE(document.at("problems").as_array().empty());
    auto quiet = args;
    quiet.push_back("--quiet");
    EXPECT_EQ(gaugepoint(quiet).out, "");
    EXPECT_NE(gaugepoint({"sessions", "list", "--app-group-dir", (dir / "g").string(), "--limit", "1"}).out.find("1-1 of 32 sessions"),
              std::string::npos);

    // Homes that are not there are no error; a capture mode that is not one is.
    EXPECT_EQ(gaugepoint({"scan", "--app-group-dir", (dir / "h").string(), "--claude-dir", "/nonexistent", "--codex-dir",
                          "/nonexistent", "--gemini-dir", "/nonexistent"})
                  .out,
              "0 files read, 0 unchanged · 0 new sessions, 0 updated · 0 tokens · 0 lines skipped\n");
    EXPECT_EQ(gaugepoint({"scan", "--capture", "everything"}).exitCode, 2);

    // A file name with terminal controls is named in --verbose without them reaching the terminal.
    const auto project = dir / "c" / "projects" / "p";
    std::filesystem::create_directories(project);
    std::ofstream(project / "bad\x1b[2J\u202e.jsonl") << "{not json\n";
    const auto named = gaugepoint({"scan", "--app-group-dir", (dir / "i").string(), "--claude-dir", (dir / "c").string(),
                                   "--codex-dir", "/nonexistent", "--gemini-dir", "/nonexistent", "--verbose"});
    EXPECT_NE(named.out.find("bad"), std::string::npos) << named.out;
    EXPECT_EQ(named.out.find('\x1b'), std::string::npos) << named.out;
    EXPECT_EQ(named.out.find("\u202e"), std::string::npos) << named.out;
}

TEST(ScanCommand, ListsSessionsUnderTheTitlesTheirToolsKeep) {
    testing::ScratchDirectory dir;
    const std::string logs = testing::testData("logs").string(), group = (dir / "g").string();
    const auto scan = gaugepoint({"scan", "--quiet", "--app-group-dir", group, "--opencode-dir", logs + "/opencode",
                                  "--goose-dir", logs + "/goose", "--amp-dir", logs + "/amp"});
    ASSERT_EQ(scan.exitCode, 0) << scan.err;
    const auto list = gaugepoint({"sessions", "list", "--app-group-dir", group}).out;
    for (const char* title : {"Fix the login", "Charts", "Tidy the build", "Refactor auth"}) {
        EXPECT_NE(list.find(std::string("  ") + title + "\n"), std::string::npos) << title << " in\n" << list;
    }
}

// Every file of the App Group directory: its bytes and its modification time.
std::map<std::string, std::pair<std::string, std::filesystem::file_time_type>> storeFiles(const std::filesystem::path& dir) {
    std::map<std::string, std::pair<std::string, std::filesystem::file_time_type>> files;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        // The empty stamp whose time says when a scan last finished is all a scan touches every
        // time (its time only, no bytes). The lock file is named only by a scan with work to do.
        if (entry.path().filename() == "quota-last-scan.stamp") continue;
        files[entry.path().filename().string()] = {testing::readFile(entry.path()), entry.last_write_time()};
    }
    return files;
}

// A scan that finds nothing new writes nothing: no store, no snapshot, no checkpoint. Off a
// terminal no progress is drawn, by `scan` or by `report`, which scans first.
TEST(ScanCommand, AnUnchangedRescanWritesNothingAndOffATerminalDrawsNoProgress) {
    testing::ScratchDirectory dir;
    const std::string logs = testing::testData("logs").string();
    const std::vector<std::string> homes{"--app-group-dir", (dir / "g").string(), "--now", "2026-11-21T12:00:00Z",
                                         "--claude-dir", logs + "/claude", "--codex-dir", logs + "/codex",
                                         "--gemini-dir", logs + "/gemini"};
    const auto with = [&](std::vector<std::string> words) {
        words.insert(words.end(), homes.begin(), homes.end());
        return words;
    };
    const auto first = gaugepoint(with({"scan"}));
    ASSERT_EQ(first.exitCode, 0) << first.err;
    EXPECT_EQ(first.err, "");
    const auto before = storeFiles(dir / "g");
    const auto again = gaugepoint(with({"scan"}));
    EXPECT_EQ(again.err, "");
    EXPECT_EQ(again.out, "0 files read, 34 unchanged · 0 new sessions, 0 updated · 0 tokens · 0 lines skipped\n");
    const auto report = gaugepoint(with({"report", "daily"}));
    EXPECT_EQ(report.exitCode, 0);
    EXPECT_EQ(report.err, "");
    EXPECT_TRUE(storeFiles(dir / "g") == before);
}

TEST(ScanCommand, VerboseNamesEverySkippedLine) {
    testing::ScratchDirectory dir;
    std::filesystem::create_directories(dir / "claude" / "projects" / "p");
    testing::writeFile(dir / "claude" / "projects" / "p" / "s.jsonl", "{\"type\":\n");
    const auto result = gaugepoint({"scan", "--app-group-dir", (dir / "g").string(), "--claude-dir", (dir / "claude").string(),
                                    "--codex-dir", (dir / "none").string(), "--gemini-dir", (dir / "none").string(), "--verbose"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.out, "1 file read, 0 unchanged · 0 new sessions, 0 updated · 0 tokens · 1 line skipped\n  " +
                              (dir / "claude" / "projects" / "p" / "s.jsonl").string() + " at byte 0: not a complete JSON object\n");
}

// A catalogue file deleted by hand is written again by the next scan, though no log changed.
TEST(ScanCommand, ADeletedCatalogueIsRebuiltByTheNextScan) {
    testing::ScratchDirectory dir;
    const std::string logs = testing::testData("logs").string();
    const std::vector<std::string> args{"scan", "--app-group-dir", (dir / "g").string(), "--claude-dir", logs + "/claude",
                                        "--codex-dir", logs + "/codex", "--gemini-dir", logs + "/gemini"};
    ASSERT_EQ(gaugepoint(args).exitCode, 0);
    for (const char* suffix : {"", "-wal", "-shm"}) std::filesystem::remove(dir / "g" / (std::string("quota-session-catalog.sqlite") + suffix));
    EXPECT_EQ(gaugepoint(args).out, "0 files read, 34 unchanged · 32 new sessions, 0 updated · 0 tokens · 0 lines skipped\n");
    EXPECT_NE(gaugepoint({"sessions", "list", "--app-group-dir", (dir / "g").string(), "--limit", "1"}).out.find("1-1 of 32 sessions"),
              std::string::npos);
}

// A scan stopped (kill -STOP) while it holds the lock: a second scan waits the user's lock wait
// and fails naming the holder; a report says so and shows what is stored; the status line never
// waits for it.
TEST(ScanCommand, AStoppedScanHoldsLaterCommandsUpOnlyForTheLockWait) {
    testing::ScratchDirectory dir;
    ::setenv("XDG_CONFIG_HOME", (dir / "config").c_str(), 1);
    std::filesystem::create_directories(dir / "config" / "gaugepoint");
    testing::writeFile(dir / "config" / "gaugepoint" / "defaults.json", R"({"scan.lockWaitSeconds": 1})");
    const std::string logs = testing::testData("logs").string(), group = (dir / "g").string();
    std::vector<std::string> scan{GAUGEPOINT_BINARY, "scan", "--app-group-dir", group, "--capture", "fullTranscript",
                                  "--claude-dir", logs + "/claude", "--codex-dir", logs + "/codex", "--gemini-dir", logs + "/gemini"};
    // Stored usage, then a scan with files to read (all of them again, for another capture mode),
    // stopped once it wrote its pid into the lock file: the test fails, rather than hangs, should
    // it finish first.
    std::vector<std::string> fill{scan.begin() + 1, scan.end()};
    fill.erase(fill.begin() + 3, fill.begin() + 5);  // metadataOnly
    ASSERT_EQ(gaugepoint(fill).exitCode, 0);
    std::vector<char*> argv;
    for (auto& word : scan) argv.push_back(word.data());
    argv.push_back(nullptr);
    const pid_t first = ::fork();
    if (first == 0) {
        std::freopen("/dev/null", "w", stdout);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    const auto lock = dir / "g" / "quota-session-scan.lock";
    for (int i = 0; i < 100000 && !(std::filesystem::exists(lock) && testing::readFile(lock) == std::to_string(first) + "\n"); ++i) ::usleep(100);
    ::kill(first, SIGSTOP);
    int status = 0;
    ASSERT_EQ(::waitpid(first, &status, WUNTRACED), first);
    ASSERT_TRUE(WIFSTOPPED(status)) << "the scan finished before it could be stopped";

    const auto timed = [](const std::vector<std::string>& args, const std::string& input = {}) {
        const auto start = std::chrono::steady_clock::now();
        const auto result = gaugepoint(args, input);
        return std::pair{result, std::chrono::steady_clock::now() - start};
    };
    const std::string holder = "another scan (pid " + std::to_string(first) + ") has held the lock for ";
    const auto [second, secondTook] = timed({scan.begin() + 1, scan.end()});
    EXPECT_EQ(second.exitCode, 1);
    EXPECT_EQ(second.err.rfind("gaugepoint: " + holder, 0), 0u) << second.err;
    const auto [report, reportTook] = timed({"report", "daily", "--app-group-dir", group, "--claude-dir", logs + "/claude"});
    EXPECT_EQ(report.exitCode, 0);
    EXPECT_NE(report.err.find(holder), std::string::npos) << report.err;
    EXPECT_NE(report.err.find("; showing what is stored\n"), std::string::npos) << report.err;
    EXPECT_NE(report.out.find("\nTotal "), std::string::npos) << report.out;
    for (const auto took : {secondTook, reportTook}) EXPECT_LT(took, std::chrono::seconds(4));
    const auto [line, lineTook] = timed({"statusline", "--app-group-dir", group}, R"({"model":{"display_name":"Opus"}})");
    EXPECT_EQ(line.exitCode, 0) << line.err;
    EXPECT_LT(lineTook, std::chrono::milliseconds(900));

    ::kill(first, SIGCONT);
    ASSERT_EQ(::waitpid(first, &status, 0), first);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    ::unsetenv("XDG_CONFIG_HOME");
}

}  // namespace
}  // namespace gaugepoint
