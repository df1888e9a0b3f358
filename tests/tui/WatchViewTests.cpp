// The watch view without a terminal: the cell grid, the short figures, the model gathered from
// the bundled sample logs, and the layouts it is drawn in.

#include <gtest/gtest.h>

#include "TestSupport.hpp"
#include "gaugepoint/platform/Text.hpp"
#include "gaugepoint/reports/LocalUsageScan.hpp"
#include "gaugepoint/stores/QuotaSourceSnapshotStore.hpp"
#include "gaugepoint/tui/WatchLayout.hpp"
#include "gaugepoint/tui/WatchText.hpp"

namespace gaugepoint::tui {
namespace {

using gaugepoint::testing::ScratchDirectory;

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    for (std::size_t start = 0; start < text.size();) {
        const auto end = text.find('\n', start);
        out.push_back(text.substr(start, end - start));
        if (end == std::string::npos) break;
        start = end + 1;
    }
    return out;
}

TEST(TextCanvas, WideCharactersTakeTwoCellsAndAreNeverSplit) {
    TextCanvas canvas{6, 2};
    EXPECT_EQ(canvas.put(0, 0, "额度ab"), 6);
    EXPECT_EQ(canvas.at(0, 0).glyph, "额");
    EXPECT_EQ(canvas.at(1, 0).glyph, "");  // the continuation cell
    EXPECT_EQ(canvas.row(0), "额度ab");
    // A wide character that would straddle the clip edge is left out whole.
    EXPECT_EQ(canvas.put(0, 1, "ab额度", CellStyle::normal, 5), 4);
    EXPECT_EQ(canvas.row(1), "ab额");
    // Combining marks join their base; control characters cannot break a line; the half of a
    // wide character that is written over leaves a blank.
    canvas.put(0, 1, "e\u0301\nx");
    EXPECT_EQ(canvas.row(1), "e\u0301 x");
    canvas.put(1, 0, "c");
    EXPECT_EQ(canvas.text(), " c度ab\ne\u0301 x\n");
}

TEST(WatchText, ShortFiguresForNarrowColumns) {
    EXPECT_EQ(WatchText::tokens(950), "950");
    EXPECT_EQ(WatchText::tokens(32'529), "32.5K");
    EXPECT_EQ(WatchText::tokens(2'667'716), "2.7M");
    EXPECT_EQ(WatchText::dollars(1234.5), "$1,234.50");
    EXPECT_EQ(WatchText::dollars(0.004), "$0.00");
    EXPECT_EQ(WatchText::sparkline({0, 0.5, 1, 2}), "▁▂▄█");
    EXPECT_EQ(WatchText::sparkline({0, 0}), "▁▁");
}

// The sample logs imported into a scratch store, as of just after their last events.
class SampleWatch : public ::testing::Test {
protected:
    void SetUp() override {
        configuration.appGroupDirectory = scratch / "group";
        configuration.sourceID = "this-machine";
        const std::filesystem::path logs = std::filesystem::path(GAUGEPOINT_EXAMPLES_DIR) / "logs";
        QuotaScanOptions options;
        options.homes = {{"claude", {logs / "claude"}}, {"codex", {logs / "codex"}}, {"gemini", {logs / "gemini"}}};
        LocalUsageScan::run(configuration, options, std::nullopt);
    }

    WatchModel model(std::optional<std::string> provider = {}, std::string language = "en") {
        WatchInputs inputs;
        inputs.tools = {{"claude", "Claude"}, {"codex", "Codex"}, {"gemini", "Gemini"}};
        inputs.configuration = &configuration;
        inputs.calendar = &utc;
        inputs.now = now;
        inputs.language = std::move(language);
        inputs.providerFilter = std::move(provider);
        inputs.snapshot = thisMachineSnapshot(configuration, now, utc, true);
        return makeWatchModel(inputs);
    }

    ScratchDirectory scratch;
    QuotaSyncConfiguration configuration;
    LocalCalendar utc = *LocalCalendar::inTimeZone("UTC", LocalCalendar::Kind::gregorian);
    Date now = gaugepoint::testing::at("2026-11-06T21:00:00Z");
};

TEST_F(SampleWatch, ModelHoldsTheSamplesFigures) {
    const auto all = model();
    EXPECT_TRUE(all.problems.empty()) << all.problems.front();
    ASSERT_EQ(all.cards.size(), 1u);  // only Codex's logs carry windows
    EXPECT_EQ(all.cards[0].providerID, "codex");
    ASSERT_EQ(all.cards[0].windows.size(), 2u);
    EXPECT_NEAR(all.cards[0].windows[0].now.window.usedPercent, 0.8, 1e-9);
    EXPECT_FALSE(all.cards[0].windows[0].now.estimated);
    // The daily report of the sample: 32,529 tokens on the 6th, all Codex; $1.20 on the 5th.
    ASSERT_EQ(all.today.size(), 1u);
    EXPECT_EQ(all.today[0].tokens, 32'529);
    ASSERT_EQ(all.dailyCost.size(), 14u);
    EXPECT_NEAR(all.dailyCost[12], 1.20, 0.005);
    EXPECT_NEAR(all.dailyCost[13], all.today[0].cost, 1e-9);
    ASSERT_EQ(all.sessions.size(), 1u);
    EXPECT_EQ(all.sessions[0].project, "api.server");
    ASSERT_EQ(all.blocks.size(), 1u);
    EXPECT_EQ(all.blocks[0].providerID, "codex");
    EXPECT_TRUE(all.machines.empty());

    const auto claude = model("claude");
    EXPECT_TRUE(claude.cards.empty());
    EXPECT_TRUE(claude.today.empty());
    EXPECT_TRUE(claude.sessions.empty());
    EXPECT_DOUBLE_EQ(claude.dailyCost[13], 0);
}

TEST_F(SampleWatch, OtherMachinesComeFromTheSourceStoreWithoutThisOne) {
    const QuotaSourceSnapshotStore store{configuration};
    for (const char* source : {"laptop", "this-machine"}) {
        QuotaSnapshot snapshot;
        snapshot.generatedAt = now - std::chrono::minutes(2);
        snapshot.source = QuotaSnapshotSource{source, source, source, "Linux"};
        ProviderQuota claude;
        claude.id = "claude";
        claude.displayName = "Claude";
        QuotaWindow window;
        window.id = "five-hour";
        window.label = "Session";
        window.usedPercent = 42;
        window.resetsAt = now + std::chrono::hours(2);
        window.windowMinutes = 300;
        claude.windows.push_back(window);
        snapshot.providers.push_back(claude);
        store.upsert(snapshot, std::nullopt, QuotaSourceSyncChannel::kvs);
    }
    const auto m = model();
    ASSERT_EQ(m.machines.size(), 1u);
    EXPECT_EQ(m.machines[0].name, "laptop");
    EXPECT_NEAR(m.machines[0].ageSeconds, 120, 1e-6);
    EXPECT_EQ(watchPanels(m).back(), WatchPanel::machines);
    const auto text = watchPlainText(m, 100);
    EXPECT_NE(text.find("laptop  as of 2 min ago  Claude Session 42%"), std::string::npos) << text;
    EXPECT_TRUE(model("codex").machines[0].providers.empty()) << "the tool filter applies to other machines too";
}

TEST_F(SampleWatch, BoxedLayoutFillsTheScreenAlignedInBothLanguages) {
    for (const char* language : {"en", "zh-Hans"}) {
        const auto m = model({}, language);
        const auto canvas = layoutWatch(m, 100, 30, WatchViewState{WatchPanel::today, false});
        const auto rows = lines(canvas.text());
        ASSERT_EQ(rows.size(), 30u) << language;
        EXPECT_TRUE(rows.front().starts_with("gaugepoint watch")) << language;
        EXPECT_NE(rows.back().find(language[0] == 'z' ? "q 退出" : "q quit"), std::string::npos) << language;
        for (const auto& row : rows) {
            // Every line of a box ends on the screen's last column, Chinese text or not.
            if (row.starts_with("┌") || row.starts_with("│") || row.starts_with("└")) {
                EXPECT_EQ(displayWidth(row), 100u) << language << ": " << row;
            }
        }
        // The sessions panel takes the spare rows; the focused panel's title is marked.
        EXPECT_TRUE(rows[28].starts_with("└")) << rows[28];
        const std::string title = language[0] == 'z' ? "今日" : "Today";
        const auto at = rows[6].find(title);
        ASSERT_NE(at, std::string::npos) << rows[6];
        EXPECT_EQ(canvas.at(static_cast<int>(displayWidth(rows[6].substr(0, at))), 6).style, CellStyle::focused);
    }
    const auto text = watchPlainText(model(), 100);
    EXPECT_NE(text.find("Session 5h"), std::string::npos) << text;
    EXPECT_NE(text.find("32.5K tok"), std::string::npos) << text;
    EXPECT_NE(text.find("official"), std::string::npos) << text;
    EXPECT_EQ(text.find("\n\n"), std::string::npos) << "the plain form has no padding rows:\n" << text;
}

TEST_F(SampleWatch, CompactLayoutAndHelpOverlay) {
    const auto m = model();
    const auto compact = layoutWatch(m, 60, 15, WatchViewState{});
    const auto text = compact.text();
    EXPECT_EQ(text.find("┌"), std::string::npos) << text;
    EXPECT_NE(text.find("Codex 5h"), std::string::npos) << text;
    EXPECT_TRUE(compact.row(14).starts_with("updated 21:00:00")) << text;
    EXPECT_EQ(watchPlainText(m, 40).find("┌"), std::string::npos);

    const auto help = layoutWatch(m, 100, 30, WatchViewState{WatchPanel::quota, true}).text();
    EXPECT_NE(help.find("Ctrl-C"), std::string::npos) << help;
    // Every panel takes the focus in turn; other machines only when there are some.
    EXPECT_EQ(watchPanels(m).size(), 4u);
}

}  // namespace
}  // namespace gaugepoint::tui
