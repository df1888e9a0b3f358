#include <gtest/gtest.h>

#include "CommandRunner.hpp"
#include "gaugepoint/platform/Json.hpp"

namespace gaugepoint {
namespace {

using testing::CommandResult;
using testing::ScratchDirectory;

const std::string kExample = std::string(GAUGEPOINT_EXAMPLES_DIR) + "/widget-snapshot.json";
constexpr const char* kSnapshot =
    R"({"version":1,"generatedAt":"2026-11-21T09:00:00Z","source":{"sourceID":"mac-studio","sourceName":"Studio",)"
    R"("hostName":"studio.local","platformLabel":"macOS"},"providers":[{"id":"claude","displayName":"Claude",)"
    R"("quotaStrategy":"multiWindow","windows":[{"id":"primary","label":"Session","usedPercent":42,)"
    R"("resetsAt":"2026-11-21T11:00:00Z","windowMinutes":300,"importance":0,"semantic":"rollingSession"}]}]})";

// Runs gaugepoint against the store directory of `dir` with a pinned clock.
CommandResult run(const ScratchDirectory& dir, std::vector<std::string> args, const std::string& input = {}) {
    args.insert(args.end(), {"--app-group-dir", (dir / "group").string(), "--now", "2026-11-21T09:30:00Z"});
    ::setenv("XDG_CONFIG_HOME", (dir / "config").c_str(), 1);
    return testing::gaugepoint(args, input);
}

TEST(HistoryCommand, AppendsListsAndClears) {
    ScratchDirectory dir;
    EXPECT_EQ(run(dir, {"history", "append", "--snapshot", "-"}, kSnapshot).out,
              "stored the snapshot of mac-studio (Studio) generated 2026-11-21 09:00:00; 1 snapshot kept\n");
    ASSERT_EQ(run(dir, {"history", "append", "--sibling", kExample}).exitCode, 0);
    const auto list = run(dir, {"history", "list"});
    EXPECT_EQ(list.out.substr(0, list.out.find('\n')), "2026-11-21 09:00:00  mac-studio (Studio)  Claude 58%");
    const auto timeline = json::parse(run(dir, {"history", "list", "--json"}).out);
    EXPECT_EQ(timeline.at("snapshots").as_array().size(), 2u);
    EXPECT_EQ(json::parse(run(dir, {"history", "latest", "--json"}).out).at("providers").as_array().size(), 6u);
    EXPECT_EQ(run(dir, {"history", "remove", "--source", "unknown"}).out, "removed the snapshots of unknown; 1 snapshot left\n");
    EXPECT_EQ(run(dir, {"history", "trim", "--days", "1"}).out, "0 snapshots removed\n");
    EXPECT_EQ(run(dir, {"history", "clear", "--json"}).out, "{\"removed\":1}\n");
    const auto empty = run(dir, {"history", "latest"});
    EXPECT_EQ(empty.exitCode, 1);
    EXPECT_EQ(empty.err.rfind("gaugepoint: no snapshots in ", 0), 0u);
}

TEST(HistoryCommand, RejectsBadInputWithOneLine) {
    ScratchDirectory dir;
    EXPECT_EQ(run(dir, {"history", "append"}).exitCode, 2);
    const auto bad = run(dir, {"history", "append", "--snapshot", "-"}, R"({"version":1})");
    EXPECT_EQ(bad.exitCode, 1);
    EXPECT_EQ(bad.err, "gaugepoint: cannot decode standard input: generatedAt: required key is missing\n");
    testing::writeFile(dir / "junk.sqlite", std::string(4096, 'x'));
    std::filesystem::create_directories(dir / "group");
    std::filesystem::rename(dir / "junk.sqlite", dir / "group" / "quota-history.sqlite");
    const auto hostile = run(dir, {"history", "append", "--snapshot", "-"}, kSnapshot);
    EXPECT_EQ(hostile.exitCode, 1);
    // The store's own description, after the file it is about.
    EXPECT_TRUE(hostile.err.starts_with("gaugepoint: " + (dir / "group" / "quota-history.sqlite").string() +
                                        ": set journal mode: file is not a database; "))
        << hostile.err;
}

TEST(SnapshotTexts, ControlCharactersFromTheDataNeverReachTheTerminal) {
    ScratchDirectory dir;
    const std::string hostile =
        R"({"version":1,"generatedAt":"2026-11-21T09:00:00Z","source":{"sourceID":"mac\u001b[2J",)"
        R"("sourceName":"St\u202Eudio\u0000","hostName":"h","platformLabel":"mac\u009bOS"},"providers":[{"id":"claude",)"
        R"("displayName":"Cl\u001b[31maude","quotaStrategy":"multiWindow","windows":[{"id":"primary",)"
        R"("label":"Se\u001bssion","usedPercent":42,"windowMinutes":300,"importance":0,"semantic":"rollingSession"}]}]})";
    ASSERT_EQ(run(dir, {"sources", "upsert", "--snapshot", "-"}, hostile).exitCode, 0);
    ASSERT_EQ(run(dir, {"history", "append", "--snapshot", "-"}, hostile).exitCode, 0);
    const std::vector<std::vector<std::string>> commands{
        {"sources", "list"}, {"sources", "show", "mac\x1b[2J"}, {"history", "list"}, {"history", "latest"}};
    for (const auto& command : commands) {
        const auto result = run(dir, command);
        SCOPED_TRACE(command[0] + " " + command[1 % command.size()]);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_NE(result.out.find("Cl [31maude"), std::string::npos) << result.out;
        for (const std::string& bad : {std::string("\x1b"), std::string(1, '\0'), std::string("\u202E"), std::string("\u009b")}) {
            EXPECT_EQ(result.out.find(bad), std::string::npos) << result.out;
        }
    }
}

TEST(SnapshotTexts, NumbersNoProviderReportsAreRefusedWithOneLine) {
    ScratchDirectory dir;
    std::string negative = kSnapshot;
    negative.replace(negative.find("\"usedPercent\":42"), 16, "\"usedPercent\":-50");
    EXPECT_EQ(run(dir, {"history", "append", "--snapshot", "-"}, negative).err,
              "gaugepoint: standard input: providers[0].windows[0].usedPercent -50 is below 0; a window's use is 0 or "
              "more percent\n");
    std::string rich = kSnapshot;
    rich.replace(rich.find("\"quotaStrategy\""), 0, "\"creditsRemaining\":1e308,");
    const auto result = run(dir, {"sources", "upsert", "--snapshot", "-"}, rich);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_NE(result.err.find("creditsRemaining 1e+308 is not a balance"), std::string::npos) << result.err;
    EXPECT_EQ(run(dir, {"history", "list", "--json"}).out.find("providers"), std::string::npos);
}

TEST(SourcesCommand, UpsertsShowsRemovesAndFeedsTheWidget) {
    ScratchDirectory dir;
    EXPECT_EQ(run(dir, {"sources", "upsert", "--snapshot", "-"}, kSnapshot).out, "stored mac-studio (Studio) received by kvs\n");
    EXPECT_EQ(run(dir, {"sources", "upsert", "--sibling", kExample, "--pairing-token", "tok", "--channel", "pairing"}).out,
              "stored tok (Unknown Source) received by pairing\n");
    const auto registry = json::parse(run(dir, {"sources", "list", "--json"}).out);
    EXPECT_EQ(registry.at("entries").as_array().size(), 2u);
    EXPECT_EQ(json::parse(run(dir, {"sources", "show", "tok", "--json"}).out).at("channel").as_string(), "pairing");
    EXPECT_EQ(run(dir, {"sources", "show", "nobody"}).exitCode, 1);

    const auto widget = run(dir, {"widget", "--from-sources", "--source", "mac-studio"});
    EXPECT_EQ(widget.out, "Claude  5h  58% left  ·  refresh in 2h  ·  28% behind · as of 30 min ago\n");
    EXPECT_EQ(run(dir, {"widget", "--from-sources", "--source", "nobody"}).exitCode, 1);

    EXPECT_EQ(run(dir, {"sources", "remove", "--pairing-token", "tok"}).out, "1 record removed\n");
    EXPECT_EQ(run(dir, {"sources", "remove", "mac-studio", "--source-id", "x"}).exitCode, 2);
    EXPECT_EQ(run(dir, {"sources", "trim", "--older-than", "60"}).out, "0 records removed\n");
    EXPECT_EQ(run(dir, {"sources", "clear"}).out, "1 record removed\n");
    EXPECT_EQ(run(dir, {"widget", "--from-sources", "--strict"}).exitCode, 1);
    const auto placeholder = run(dir, {"widget", "--from-sources", "--format", "line"});  // a status bar
    EXPECT_EQ(placeholder.exitCode, 0);
    EXPECT_EQ(placeholder.out, "gaugepoint: no quota reading yet\n");
}

}  // namespace
}  // namespace gaugepoint
