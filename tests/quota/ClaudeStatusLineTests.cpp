#include <gtest/gtest.h>

#include "TestSupport.hpp"
#include "gaugepoint/model/QuotaReadingOrigin.hpp"
#include "gaugepoint/quota/ClaudeStatusLineRecorder.hpp"
#include "gaugepoint/quota/ClaudeStatusLineView.hpp"
#include "gaugepoint/reports/LocalQuotaSnapshot.hpp"
#include "gaugepoint/stores/QuotaHistoryStore.hpp"
#include "gaugepoint/stores/QuotaSourceSnapshotStore.hpp"

namespace gaugepoint {
namespace {

using testing::at;

const Date kNow = at("2026-11-19T12:00:00Z");

// Claude Code's input with the given rate limits (epoch seconds of kNow plus the offsets).
std::string input(double fiveHour, double sevenDay, int fiveHourResetMinutes = 120) {
    const auto epoch = std::int64_t(secondsSince1970(kNow));
    return R"({"session_id":"s1","transcript_path":"/home/dev/.claude/projects/p/s1.jsonl","cwd":"/home/dev/app",
      "version":"2.1.110","model":{"id":"claude-opus-4-1-20250805","display_name":"Opus 4.1"},
      "workspace":{"current_dir":"/home/dev/app","project_dir":"/home/dev/app"},
      "cost":{"total_cost_usd":0.42,"total_duration_ms":180000},
      "context_window":{"total_input_tokens":15234,"context_window_size":200000,"used_percentage":30.5},
      "rate_limits":{"five_hour":{"used_percentage":)" +
           std::to_string(fiveHour) + R"(,"resets_at":)" + std::to_string(epoch + fiveHourResetMinutes * 60) +
           R"(},"seven_day":{"used_percentage":)" + std::to_string(sevenDay) + R"(,"resets_at":)" +
           std::to_string(epoch + 3 * 86400) + "}}}";
}

ClaudeStatusLineInput parsed(const std::string& text) {
    std::vector<std::string> problems;
    return ClaudeStatusLineInput::parse(text, problems);
}

TEST(ClaudeStatusLineInput, ReadsWhatIsThereAndNamesWhatIsNot) {
    const auto full = parsed(input(23.5, 41.2));
    EXPECT_EQ(full.modelDisplayName, "Opus 4.1");
    EXPECT_EQ(full.cwd, "/home/dev/app");
    EXPECT_EQ(full.sessionCostUSD, 0.42);
    EXPECT_EQ(full.contextUsedPercent, 30.5);
    ASSERT_TRUE(full.fiveHour && full.sevenDay);
    EXPECT_EQ(full.fiveHour->usedPercent, 23.5);
    EXPECT_EQ(full.fiveHour->resetsAt, kNow + std::chrono::hours(2));

    const struct {
        const char* text;
        std::size_t problems;
    } cases[] = {
        {R"({"model":{"id":"claude-sonnet-4-5"},"cost":{"total_cost_usd":"cheap"},"version":7})", 0},  // an older version
        {R"({"rate_limits":{"five_hour":{"used_percentage":140,"resets_at":1795400000}}})", 1},
        {R"({"rate_limits":{"five_hour":{"used_percentage":"12"}},"context_window":[]})", 1},
        {"[1,2]", 1},
        {"{\"model\": ", 1},
        {"", 1},
    };
    for (const auto& c : cases) {
        std::vector<std::string> problems;
        const auto result = ClaudeStatusLineInput::parse(c.text, problems);
        EXPECT_EQ(problems.size(), c.problems) << c.text;
        EXPECT_FALSE(result.hasRateLimits()) << c.text;
        EXPECT_FALSE(result.sessionCostUSD) << c.text;
    }
    EXPECT_EQ(parsed(cases[0].text).modelID, "claude-sonnet-4-5");
}

class StatusLineStores : public ::testing::Test {
protected:
    StatusLineStores() {
        configuration.appGroupDirectory = dir / "group";
        configuration.sourceID = "laptop";
        configuration.clock = Clock::fixedAt(kNow);
    }
    const ProviderQuota& storedClaude() {
        stored = LocalQuotaSnapshot::latest(configuration);
        for (const auto& provider : stored->providers) {
            if (provider.id == "claude") return provider;
        }
        throw std::runtime_error("no claude");
    }
    testing::ScratchDirectory dir;
    QuotaSyncConfiguration configuration;
    std::optional<QuotaSnapshot> stored;
};

TEST_F(StatusLineStores, OfficialReadingsGoToTheSourceRecordAndChangesToTheHistory) {
    ASSERT_TRUE(ClaudeStatusLineRecorder::record(configuration, parsed(input(23.5, 41.2)), kNow));
    const auto& claude = storedClaude();
    ASSERT_EQ(claude.windows.size(), 2u);
    EXPECT_EQ(claude.updatedAt, kNow);
    EXPECT_EQ(claude.windows[0].usedPercent, 23.5);
    EXPECT_EQ(claude.windows[0].windowMinutes, 300);
    EXPECT_EQ(claude.windows[0].semantic, QuotaWindowSemantic::rollingSession);
    EXPECT_EQ(claude.windows[1].usedPercent, 41.2);
    EXPECT_EQ(claude.windows[1].semantic, QuotaWindowSemantic::fixedCycle);
    EXPECT_FALSE(QuotaReadingOrigin::isEstimated(claude.windows[0]));

    const Date later = kNow + std::chrono::seconds(30);
    EXPECT_FALSE(ClaudeStatusLineRecorder::record(configuration, parsed(input(23.5, 41.2)), later)->historyAppended);
    EXPECT_EQ(storedClaude().updatedAt, later);  // the same figures, read again: fresher, no new history row
    EXPECT_TRUE(ClaudeStatusLineRecorder::record(configuration, parsed(input(24, 41.2)), later + std::chrono::seconds(5))
                    ->historyAppended);
    EXPECT_EQ(QuotaHistoryStore{configuration}.loadTimeline().snapshots.size(), 2u);

    // A reading with the five-hour window only keeps the weekly one it had.
    auto partial = parsed(input(30, 0));
    partial.sevenDay.reset();
    ClaudeStatusLineRecorder::record(configuration, partial, later + std::chrono::seconds(9));
    EXPECT_EQ(storedClaude().windows.at(1).usedPercent, 41.2);
    EXPECT_FALSE(ClaudeStatusLineRecorder::record(configuration, parsed("{}"), kNow));  // nothing to record
}

TEST_F(StatusLineStores, APublishKeepsAReadingThatArrivedWhileTheScanRan) {
    auto scanned = LocalQuotaSnapshot::make(configuration, kNow, LocalCalendar::current(LocalCalendar::Kind::gregorian));
    ClaudeStatusLineRecorder::record(configuration, parsed(input(55, 60)), kNow + std::chrono::seconds(2));
    LocalQuotaSnapshot::publish(scanned, configuration);
    EXPECT_EQ(storedClaude().windows.at(0).usedPercent, 55);

    // The next scan takes the official windows from the record while their period lasts.
    const auto next = LocalQuotaSnapshot::make(configuration, kNow + std::chrono::minutes(1),
                                               LocalCalendar::current(LocalCalendar::Kind::gregorian));
    ASSERT_EQ(next.providers.size(), 1u);
    EXPECT_EQ(next.providers[0].windows.at(0).usedPercent, 55);
    EXPECT_EQ(next.providers[0].updatedAt, kNow + std::chrono::seconds(2));
}

TEST(ClaudeStatusLineText, OneLineInBothLanguagesWithOrWithoutColour) {
    ProviderQuota claude;
    claude.id = "claude";
    ClaudeStatusLineRecorder::applyReading(claude, parsed(input(63.5, 41.2, 60)), kNow);
    const auto view = [&](std::string_view language) {
        return ClaudeStatusLineView::make(parsed(input(63.5, 41.2, 60)), &claude, kNow, kNow, language, {});
    };
    auto english = view("en");
    english.todayCostUSD = 3.1;
    // 63.5 % used four hours into five: 16.5 % behind an even burn.
    EXPECT_EQ(ClaudeStatusLineText::line(english, ClaudeStatusLineText::Style::plain),
              "Opus 4.1 · ctx 31% · 5h 64% ↺13:00 · wk 41% · 17% behind · $0.42 · today $3.10");
    auto chinese = view("zh-Hans");
    EXPECT_EQ(ClaudeStatusLineText::line(chinese, ClaudeStatusLineText::Style::plain),
              "Opus 4.1 · 上下文 31% · 5小时 64% ↺13:00 · 本周 41% · 比均速慢 17% · $0.42");
    const std::string coloured = ClaudeStatusLineText::line(english, ClaudeStatusLineText::Style::ansi);
    EXPECT_NE(coloured.find("\033[33m5h 64%"), std::string::npos) << coloured;  // yellow from 60 % used
    EXPECT_EQ(ClaudeStatusLineText::line(english, ClaudeStatusLineText::Style::plain, "{model}: {five_hour}\n{nope}"),
              "Opus 4.1: 5h 64% ↺13:00 {nope}");

    // Hours later the reset has passed and the reading has grown old.
    auto later = ClaudeStatusLineView::make(parsed("{}"), &claude, kNow, kNow + std::chrono::hours(2), "en", {});
    EXPECT_EQ(ClaudeStatusLineText::line(later, ClaudeStatusLineText::Style::plain),
              "5h 0% (reset) · wk 41% · 17% behind · as of 2 h ago");
    EXPECT_EQ(ClaudeStatusLineText::fallbackLine(parsed("garbage"), "en"), "-");
}

}  // namespace
}  // namespace gaugepoint
