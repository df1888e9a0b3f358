#include <gtest/gtest.h>

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
