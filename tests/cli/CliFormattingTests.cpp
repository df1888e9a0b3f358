#include <gtest/gtest.h>

#include "CommandSupport.hpp"
#include "TextTable.hpp"
#include "UsageErrors.hpp"
#include "gaugepoint/platform/Text.hpp"

namespace gaugepoint::cli {
namespace {

const std::vector<std::vector<std::string>> kRows{
    {"Session", "Project", "Input", "Total"},
    {"0b6a2c1e-4f3d-4c55-9a8e-2d7f1e9c3b10", "/home/dev/src/a-rather-long-project-name", "1,234", "98,765"},
    {"Total", "", "1,234", "98,765"},
};
const TableFormat kFormat{{false, false, true, true}, {false, false, true, false}, {true, true, false, false}};

std::size_t widest(const std::string& text) {
    std::size_t widest = 0, start = 0;
    for (std::size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1) {
        widest = std::max(widest, displayWidth(std::string_view(text).substr(start, end - start)));
    }
    return widest;
}

TEST(TextTable, FitsTheWidthByLeavingOutThenCutting) {
    OutputStyle wide;  // no width: everything, uncut
    const std::string full = renderTable(kRows, kFormat, wide);
    EXPECT_EQ(full.substr(0, full.find('\n')),
              "Session                               Project                                   Input   Total");
    OutputStyle compact{std::size_t{60}, true, false, false};
    const std::string narrow = renderTable(kRows, kFormat, compact);
    EXPECT_EQ(narrow.find("Input"), std::string::npos);  // optional in the compact layout
    EXPECT_LE(widest(narrow), 60u);
    EXPECT_NE(narrow.find("…"), std::string::npos);
    EXPECT_NE(narrow.find("98,765\n"), std::string::npos);  // numbers are never cut
    OutputStyle tooNarrow{std::size_t{20}, true, false, false};
    const std::string cut = renderTable(kRows, kFormat, tooNarrow);  // cut no further than 8 columns
    EXPECT_EQ(cut.substr(cut.find('\n') + 1, 22), "0b6a2c1…  /home/d…");
    OutputStyle keepAll{std::size_t{20}, true, true, false};  // --wide wins
    EXPECT_EQ(renderTable(kRows, kFormat, keepAll), full);
}

TEST(UsageErrors, TheNearestCommandAndTheWordsPeopleType) {
    const std::vector<std::string> commands{"widget", "report", "sessions", "statusline", "scan"};
    EXPECT_EQ(closestName("reprot", commands), "report");
    EXPECT_EQ(closestName("Widgets", commands), "widget");
    EXPECT_EQ(closestName("status", commands), "statusline");  // a beginning counts too
    EXPECT_EQ(closestName("zzz", commands), "");
    EXPECT_EQ(normalizedArguments({"version"}), (std::vector<std::string>{"--version"}));
    EXPECT_EQ(normalizedArguments({"help", "report", "daily"}), (std::vector<std::string>{"report", "daily", "--help"}));
    EXPECT_EQ(normalizedArguments({"report", "help"}), (std::vector<std::string>{"report", "help"}));
    EXPECT_EQ(normalizedArguments({"--app-group-dir", "help", "--lang", "zh-Hans", "help", "scan"}),
              (std::vector<std::string>{"--app-group-dir", "help", "--lang", "zh-Hans", "scan", "--help"}));
    EXPECT_EQ(normalizedArguments({"-j", "version"}), (std::vector<std::string>{"-j", "--version"}));
}

TEST(OptionValues, RefuseWhatIsNotTheirsBeforeConversion) {
    CLI::App app;
    std::int64_t limit = 0;
    double days = 0;
    std::string format;
    app.add_option("--limit", limit)->check(Values::wholeNumber(1, "20", 100));
    app.add_option("--days", days)->check(Values::number(0, "30"));
    app.add_option("--format", format)->check(Values::oneOf({"text", "json"}));
    const auto refused = [&](std::vector<std::string> args) -> std::string {
        std::reverse(args.begin(), args.end());
        try {
            app.parse(args);
        } catch (const CLI::ParseError& e) {
            return usageErrorMessage(e, app);
        }
        return {};
    };
    EXPECT_EQ(refused({"--limit", "101"}), "--limit takes a whole number from 1 to 100 (got \"101\"), e.g. --limit 20");
    EXPECT_EQ(refused({"--limit", "1e3"}), "--limit takes a whole number from 1 to 100 (got \"1e3\"), e.g. --limit 20");
    EXPECT_EQ(refused({"--days", "nan"}), "--days takes a number from 0 (got \"nan\"), e.g. --days 30");
    EXPECT_EQ(refused({"--format", "JSON"}), "--format takes text or json (got \"JSON\"), e.g. --format text");
    EXPECT_EQ(refused({"--days", "2.5", "--limit", "7"}), "");
    EXPECT_EQ(days, 2.5);
}

TEST(CommandSupport, TimesForPeopleAreLocalToTheSecond) {
    EXPECT_EQ(timeText(dateFromSeconds(1795267140.75)), "2026-11-21 13:19:00");  // TZ=UTC in tests
    EXPECT_EQ(timeText(std::nullopt, "never"), "never");
}

}  // namespace
}  // namespace gaugepoint::cli
