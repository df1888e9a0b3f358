#include <gtest/gtest.h>

#include <boost/json/serialize.hpp>

#include <cstdlib>

#include "CommandRunner.hpp"
#include "gaugepoint/platform/Json.hpp"

namespace gaugepoint {
namespace {

using testing::gaugepoint;

// A scratch App Group, user defaults and sibling location, and the sample's log homes.
class ReportCommand : public ::testing::Test {
protected:
    ReportCommand() {
        ::setenv("XDG_CONFIG_HOME", (dir / "config").c_str(), 1);
        ::setenv("XDG_DATA_HOME", (dir / "data").c_str(), 1);  // no sibling widget file there
    }
    std::vector<std::string> with(std::vector<std::string> args, bool homes = true) const {
        args.insert(args.end(), {"--app-group-dir", (dir / "group").string()});
        if (homes) {
            for (const char* tool : {"claude", "codex", "gemini"}) {
                args.insert(args.end(), {std::string("--") + tool + "-dir", logs + "/" + tool});
            }
        }
        return args;
    }
    testing::ScratchDirectory dir;
    const std::string logs = testing::testData("logs").string();
};

TEST_F(ReportCommand, DailyJsonHasTheAnalysersKeysAndTheZonesDays) {
    const auto utc = gaugepoint(with({"report", "daily", "--timezone", "UTC", "--json"}));
    ASSERT_EQ(utc.exitCode, 0) << utc.err;
    const auto doc = json::parse(utc.out);
    const auto& rows = doc.at("daily").as_array();
    ASSERT_FALSE(rows.empty());
    for (const char* key : {"date", "inputTokens", "outputTokens", "cacheCreationTokens", "cacheReadTokens", "totalTokens",
                            "totalCost", "unpricedTokens", "costSource", "modelsUsed", "modelBreakdowns"}) {
        EXPECT_TRUE(rows[0].as_object().contains(key)) << key;
    }
    EXPECT_EQ(rows[0].at("date").as_string(), "2026-10-18");
    EXPECT_EQ(doc.at("totals").at("totalTokens").as_int64(), 2667716 + 432815 + 602820);
    EXPECT_EQ(doc.at("totals").at("unpricedTokens").as_int64(), 220235);

    // Scanned already: the same figures from the stores alone, other days in another zone.
    const auto york = json::parse(gaugepoint(with({"report", "daily", "--no-scan", "--timezone", "America/New_York", "--json"},
                                                  false)).out);
    EXPECT_EQ(york.at("totals").at("totalTokens"), doc.at("totals").at("totalTokens"));
    EXPECT_NE(york.at("daily").as_array().size(), rows.size());
    const auto oneDay = json::parse(gaugepoint(with({"report", "daily", "--no-scan", "--timezone", "UTC", "--since",
                                                     "2026-11-05", "--until", "2026-11-05", "--provider", "claude", "--json"},
                                                    false)).out);
    ASSERT_EQ(oneDay.at("daily").as_array().size(), 1u);
    EXPECT_EQ(oneDay.at("daily").as_array()[0].at("totalTokens").as_int64(), 419153);
    const auto weeks = json::parse(gaugepoint(with({"report", "weekly", "--no-scan", "--timezone", "UTC",
                                                    "--start-of-week", "monday", "--json"}, false)).out);
    EXPECT_EQ(weeks.at("weekly").as_array()[0].at("week").as_string(), "2026-10-12");
    const auto months = json::parse(gaugepoint(with({"report", "monthly", "--no-scan", "--order", "desc", "--json"}, false)).out);
    EXPECT_EQ(months.at("monthly").as_array()[0].at("month").as_string(), "2026-11");
}

TEST_F(ReportCommand, TablesAreAlignedWithTotalsAndMarkUnpricedTokens) {
    const auto text = gaugepoint(with({"report", "daily", "--timezone", "UTC", "--provider", "claude", "--breakdown"}));
    ASSERT_EQ(text.exitCode, 0) << text.err;
    EXPECT_EQ(text.out.rfind("Daily usage · UTC · claude\n\nDate        Models", 0), 0u) << text.out;
    EXPECT_NE(text.out.find("\n2026-11-05  claude-nebula-preview, claude-opus-4-1, claude-sonnet-4-5 "), std::string::npos);
    EXPECT_NE(text.out.find("  └ claude-nebula-preview-20261015 "), std::string::npos);
    EXPECT_NE(text.out.find("\nTotal "), std::string::npos);
    EXPECT_NE(text.out.find("  └ claude-nebula-preview-20261015 "), std::string::npos);
    EXPECT_NE(text.out.find(" 220,235  unpriced*\n"), std::string::npos) << text.out;  // never $0.00
    // $5.01 at the cache-write price, plus 13,070 one-hour cache writes of claude-sonnet-4-5 at
    // $6 instead of $3.75 per million: $0.03 more.
    EXPECT_NE(text.out.find("2,667,716     $5.04*\n"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("\n* 220,235 tokens of models without a price are not in the costs: "
                            "claude-nebula-preview-20261015\n"),
              std::string::npos);
    const auto chinese = gaugepoint(with({"report", "session", "--no-scan", "--lang", "zh-Hans"}, false));
    EXPECT_EQ(chinese.out.rfind("按会话的用量 · UTC · 全部服务\n\n会话", 0), 0u) << chinese.out;
    const auto blocks = gaugepoint(with({"report", "blocks", "--no-scan", "--timezone", "UTC", "--now",
                                         "2026-11-05T15:00:00Z"}, false));
    // A gap is the pause between two entries, from the last entry before it.
    EXPECT_NE(blocks.out.find("2026-10-19 00:00  idle 32h 17m"), std::string::npos) << blocks.out;
    EXPECT_NE(blocks.out.find("2026-11-05 14:00  active · 4h 0m left"), std::string::npos) << blocks.out;
    EXPECT_NE(blocks.out.find("\nBurn rate: 4,600 tokens/min · $0.00*/h\nAt this rate the block ends with 1,324,149 "
                              "tokens, $0.00* by 2026-11-05 19:00\n"),
              std::string::npos)
        << blocks.out;
    const auto limited = gaugepoint(with({"report", "blocks", "--no-scan", "-z", "UTC", "--now", "2026-11-05T15:00:00Z",
                                          "--active", "--token-limit", "440470"}, false));
    EXPECT_NE(limited.out.find("2026-11-05 14:00  active · 4h 0m left       50.0%  claude-nebula-preview"), std::string::npos)
        << limited.out;
    EXPECT_EQ(std::count(limited.out.begin(), limited.out.end(), '\n'), 11) << limited.out;
    EXPECT_EQ(gaugepoint(with({"report", "daily", "--no-scan", "--provider", "gemini", "--since", "2030-01-01"}, false)).out,
              "No usage found in the stores at " + (dir / "group").string() + " (without --no-scan the logs are read first).\n");
}

// Estimated costs come from the catalogue in force when the report runs: a refresh that prices a
// model the scan found unpriced shows in the next report, with or without its scan.
TEST_F(ReportCommand, ARefreshedCatalogueIsSeenByTheNextReport) {
    const auto totals = [&](bool scan) {
        std::vector<std::string> args{"report", "daily", "--json"};
        if (!scan) args.push_back("--no-scan");
        const auto report = gaugepoint(with(args, scan));
        EXPECT_EQ(report.exitCode, 0) << report.err;
        return json::parse(report.out).at("totals");
    };
    const auto before = totals(true);
    ASSERT_EQ(before.at("unpricedTokens"), 220235);

    auto models = json::parse(gaugepoint(with({"catalog", "models", "--json"}, false)).out);
    auto& list = models.as_object()["models"].as_array();
    auto priced = list.front();
    priced.as_object()["id"] = "claude-nebula-preview-20261015";
    priced.as_object()["displayName"] = "Nebula preview";
    priced.as_object()["aliases"] = boost::json::array{};
    list.push_back(priced);
    testing::writeFile(dir / "p.json", gaugepoint(with({"catalog", "providers", "--json"}, false)).out);
    testing::writeFile(dir / "m.json", boost::json::serialize(models));
    const auto refreshed = gaugepoint(with({"catalog", "refresh", "--provider-url", "file://" + (dir / "p.json").string(),
                                            "--model-url", "file://" + (dir / "m.json").string()}, false));
    ASSERT_EQ(refreshed.exitCode, 0) << refreshed.err;
    for (const bool scan : {false, true}) {
        const auto after = totals(scan);
        EXPECT_EQ(after.at("unpricedTokens"), 0) << scan;
        EXPECT_GT(after.at("totalCost").to_number<double>(), before.at("totalCost").to_number<double>() + 0.1) << scan;
    }
}

TEST_F(ReportCommand, BadOptionsAreUsageErrorsOfOneLine) {
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"report", "daily", "--since", "2026-13-01"},
             {"report", "daily", "--since", "2026-11-05", "--until", "2026-11-01"},
             {"report", "daily", "--timezone", "Mars/Olympus_Mons"},
             {"report", "weekly", "--start-of-week", "friday"},
             {"report", "daily", "--provider", "cursor"}}) {
        const auto result = gaugepoint(with(args, false));
        EXPECT_EQ(result.exitCode, 2) << args[3];
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    }
    const auto noVerb = gaugepoint({"report"});
    EXPECT_EQ(noVerb.exitCode, 2);
    EXPECT_EQ(noVerb.err, "gaugepoint: report needs a command: daily, weekly, monthly, session, blocks (see --help)\n");
}

TEST_F(ReportCommand, TheWidgetShowsThisMachinesSnapshotWhenThereIsNoSiblingFile) {
    const auto none = gaugepoint(with({"widget", "--strict"}, false));
    EXPECT_EQ(none.exitCode, 1);
    EXPECT_NE(none.err.find("run `gaugepoint scan`"), std::string::npos) << none.err;
    const auto bar = gaugepoint(with({"widget", "--format", "waybar"}, false));  // a status bar gets a placeholder
    EXPECT_EQ(bar.exitCode, 0);
    EXPECT_EQ(json::parse(bar.out).at("text").as_string(), "-");

    // A scan with a pinned clock stores no snapshot dated by it; the widget makes one for that moment.

    const std::string now = "2026-11-06T21:00:00Z";  // after the newest Codex event, before its 5h reset
    ASSERT_EQ(gaugepoint(with({"scan", "--quiet", "--now", now})).exitCode, 0);
    const auto waybar = gaugepoint(with({"widget", "--format", "waybar", "--now", now}, false));
    ASSERT_EQ(waybar.exitCode, 0) << waybar.err;
    const auto module = json::parse(waybar.out);
    EXPECT_EQ(module.at("text").as_string(), "Codex 5h 99.2%");
    const std::string tooltip{module.at("tooltip").as_string()};
    EXPECT_NE(tooltip.find("Codex 5h 99.2% left · refresh in 5h · no pace yet\n  1w 99.6% left · refresh in 6d · 21% behind"),
              std::string::npos)
        << tooltip;
    EXPECT_EQ(gaugepoint(with({"sources", "list", "--json"}, false)).out.find("Codex"), std::string::npos);
    EXPECT_EQ(gaugepoint(with({"widget", "--format", "line", "--now", now}, false)).out, "Codex 5h 99.2% left · in 5h\n");
    // Providers without a window show their day: nothing used yet on the 6th keeps the 30 days;
    // on the 5th, a cost that leaves out a model without a price, saying how many tokens that is
    // (claude-opus-4-1 $0.75 + claude-sonnet-4-5 $0.05; gemini-2.5-pro $0.27 + gemini-2.5-flash $0.02).
    const auto text = gaugepoint(with({"widget", "--now", now}, false)).out;
    EXPECT_NE(text.find("Claude  2.7M tokens · $5.04 in 30 days (220.2K unpriced)\n"), std::string::npos) << text;
    const auto dayBefore = gaugepoint(with({"widget", "--now", "2026-11-05T23:59:00Z"}, false)).out;
    EXPECT_NE(dayBefore.find("Claude  419.2K tokens · $0.80 today (220.2K unpriced)\n"), std::string::npos) << dayBefore;
    EXPECT_NE(dayBefore.find("Gemini  268.2K tokens · $0.29 today\n"), std::string::npos) << dayBefore;

    // A block limit, kept for later scans, turns the active Claude block into the tightest window.
    const std::string during = "2026-11-05T15:00:00Z";
    const std::string estimated = "Claude 5h est. 50% left · in 4h · runs out ~Thu 16:00, 3 h before reset\n";
    ASSERT_EQ(gaugepoint(with({"scan", "--quiet", "--now", during, "--claude-block-limit", "440470"})).exitCode, 0);
    EXPECT_EQ(gaugepoint(with({"widget", "--format", "line", "--now", during}, false)).out, estimated);
    ASSERT_EQ(gaugepoint(with({"scan", "--quiet", "--now", during})).exitCode, 0);
    EXPECT_EQ(gaugepoint(with({"widget", "--format", "line", "--now", during}, false)).out, estimated);
    EXPECT_EQ(gaugepoint(with({"scan", "--claude-block-limit", "lots"})).exitCode, 2);
}

}  // namespace
}  // namespace gaugepoint
