#include <gtest/gtest.h>

#include <filesystem>
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
}

// Every file of the App Group directory: its bytes and its modification time.
std::map<std::string, std::pair<std::string, std::filesystem::file_time_type>> storeFiles(const std::filesystem::path& dir) {
    std::map<std::string, std::pair<std::string, std::filesystem::file_time_type>> files;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        // The empty stamp whose time says when a scan last finished is the one thing a scan
        // touches every time (no bytes, no fsync).
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

}  // namespace
}  // namespace gaugepoint
