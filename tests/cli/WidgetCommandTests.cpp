#include <gtest/gtest.h>

#include "CommandRunner.hpp"
#include "gaugepoint/platform/Json.hpp"

namespace gaugepoint {
namespace {

using testing::gaugepoint;

const std::string kExample = std::string(GAUGEPOINT_EXAMPLES_DIR) + "/widget-snapshot.json";
const std::string kNow = "2026-11-21T09:30:00Z";

std::size_t lineCount(const std::string& text) { return std::size_t(std::count(text.begin(), text.end(), '\n')); }

TEST(WidgetCommand, RendersTheExampleInEveryFormat) {
    const auto text = gaugepoint({"widget", "--snapshot", kExample, "--now", kNow, "--lang", "en"});
    ASSERT_EQ(text.exitCode, 0) << text.err;
    EXPECT_EQ(lineCount(text.out), 6u);
    // Claude's headline is its fullest window, the Opus weekly limit at 81 % used.
    EXPECT_EQ(text.out.rfind("Claude      claude-opus-4-1     19% left  ·  refresh in 3d  ·  23% ahead", 0), 0u) << text.out;
    EXPECT_TRUE(text.err.empty());

    const auto json = gaugepoint({"widget", "--snapshot", kExample, "--now", kNow, "--format", "json"});
    ASSERT_EQ(json.exitCode, 0) << json.err;
    const auto doc = json::parse(json.out);
    EXPECT_EQ(doc.at("providers").as_array().size(), 6u);
    EXPECT_EQ(doc.at("nextResetAt").as_string(), "2026-11-21T11:15:00Z");
    EXPECT_EQ(gaugepoint({"widget", "--snapshot", kExample, "--now", kNow, "--json"}).out, json.out);

    const auto waybar = gaugepoint({"widget", "--snapshot", kExample, "--now", kNow, "--format", "waybar"});
    ASSERT_EQ(waybar.exitCode, 0);
    EXPECT_EQ(lineCount(waybar.out), 1u);
    // Copilot, the tightest, was read 19 minutes before: past the 15 minutes a reading stays fresh.
    EXPECT_EQ(json::parse(waybar.out).at("class"), json::parse(R"(["critical","stale"])"));
}

TEST(WidgetCommand, GlobalOptionsMayComeBeforeOrAfterTheCommand) {
    const auto after = gaugepoint({"widget", "--snapshot", kExample, "--now", kNow, "--lang", "zh-Hans"});
    const auto before = gaugepoint({"--lang", "zh-Hans", "--now", kNow, "widget", "--snapshot", kExample});
    ASSERT_EQ(after.exitCode, 0) << after.err;
    EXPECT_EQ(after.out, before.out);
    EXPECT_NE(after.out.find("剩余 19%  ·  3 天后刷新"), std::string::npos) << after.out;
}

TEST(WidgetCommand, FailuresPrintOneLineAndExitOne) {
    testing::ScratchDirectory dir;
    const auto missing = gaugepoint({"widget", "--snapshot", (dir / "none.json").string()});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_EQ(missing.err, "gaugepoint: cannot read " + (dir / "none.json").string() + ": No such file or directory\n");
    EXPECT_TRUE(missing.out.empty());

    testing::writeFile(dir / "bad.json", R"({"generatedAt":"2026-11-21T09:00:00Z","entries":[{"provider":7}]})");
    const auto malformed = gaugepoint({"widget", "--snapshot", (dir / "bad.json").string()});
    EXPECT_EQ(malformed.exitCode, 1);
    EXPECT_EQ(malformed.err, "gaugepoint: cannot decode " + (dir / "bad.json").string() +
                                 ": entries[0].provider: expected a string, found a number\n");
}

TEST(WidgetCommand, UsageErrorsExitTwo) {
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {}, {"widget", "--format", "xml"}, {"widget", "--now", "tomorrow"}, {"widget", "--bogus"}, {"nonsense"}}) {
        const auto result = gaugepoint(args);
        EXPECT_EQ(result.exitCode, 2) << (args.empty() ? "(no arguments)" : args.back());
        EXPECT_EQ(result.err.rfind("gaugepoint: ", 0), 0u) << result.err;
        EXPECT_EQ(lineCount(result.err), 1u) << result.err;
    }
    const auto help = gaugepoint({"widget", "--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_NE(help.out.find("--snapshot"), std::string::npos);
}

}  // namespace
}  // namespace gaugepoint
