// Alerts delivered over a private session bus to a notification server of the tests' own.

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <thread>

#include "CommandRunner.hpp"
#include "PrivateBus.hpp"
#include "gaugepoint/alerts/QuotaAlerts.hpp"
#include "gaugepoint/notify/QuotaNotifyInboxStore.hpp"
#include "gaugepoint/reports/LocalQuotaSnapshot.hpp"
#include "gaugepoint/stores/QuotaSourceSnapshotStore.hpp"

namespace gaugepoint {
namespace {

using testing::PrivateBus;

class AlertBus : public ::testing::Test {
protected:
    void SetUp() override {
        if (!testing::haveDbusRunSession()) GTEST_SKIP() << "dbus-run-session is not installed (Debian package dbus)";
        configuration_.appGroupDirectory = dir_ / "group";
        configuration_.sourceID = "machine-test";
        configuration_.clock = Clock([this] { return now_; });
        ::setenv("GAUGEPOINT_SOURCE_ID", "machine-test", 1);
        bus_.emplace();
        ASSERT_TRUE(bus_->running()) << "the private bus did not start";
    }
    void TearDown() override { ::unsetenv("GAUGEPOINT_SOURCE_ID"); }

    // This machine's snapshot: Claude's five-hour window at `used` percent, resetting at `reset`.
    QuotaSnapshot snapshot(double used, Date reset) const {
        QuotaWindow w;
        w.id = "five_hour";
        w.label = "Session";
        w.usedPercent = used;
        w.resetsAt = reset;
        w.semantic = QuotaWindowSemantic::rollingSession;
        w.windowMinutes = 300;  // the tests keep within its first tenth: too early for a pace
        ProviderQuota p;
        p.id = "claude";
        p.displayName = "Claude";
        p.updatedAt = now_;
        p.windows = {w};
        QuotaSnapshot s;
        s.generatedAt = now_;
        s.source = LocalQuotaSnapshot::source(configuration_);
        s.providers = {p};
        return s;
    }
    AlertEvaluation evaluate(double used, Date reset, std::string_view language = "en") {
        return QuotaAlerts::evaluate(configuration_, snapshot(used, reset), now_, language);
    }

    // Rows of the inbox file itself: "category|thread_id|level|title".
    std::vector<std::string> inboxRows() const {
        sqlite3* db = nullptr;
        sqlite3_open((dir_ / "group" / "quota-notify-inbox.sqlite").c_str(), &db);
        sqlite3_stmt* s = nullptr;
        sqlite3_prepare_v2(db, "SELECT category || '|' || thread_id || '|' || level || '|' || title FROM notify_inbox "
                               "ORDER BY created_at, envelope_id", -1, &s, nullptr);
        std::vector<std::string> rows;
        while (s && sqlite3_step(s) == SQLITE_ROW) rows.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(s, 0)));
        sqlite3_finalize(s);
        sqlite3_close(db);
        return rows;
    }

    testing::ScratchDirectory dir_;
    QuotaSyncConfiguration configuration_;
    Date now_ = std::chrono::time_point_cast<Date::duration>(std::chrono::system_clock::now());
    std::optional<PrivateBus> bus_;
};

TEST_F(AlertBus, OneNotifyPerCrossingWhileAReadingGoesUpDownAndUpAgain) {
    const Date reset = now_ + std::chrono::minutes(285);
    EXPECT_TRUE(evaluate(52, reset).firstEvaluation);  // already crossed at install: recorded only
    for (const double used : {45.0, 55.0, 79.0, 81.0, 60.0, 85.0, 84.0}) {
        now_ += std::chrono::minutes(1);
        evaluate(used, reset);
    }
    auto calls = bus_->calls();
    ASSERT_EQ(calls.size(), 1u);  // 80 once; 50 was there before installation
    EXPECT_EQ(calls[0].app, "gaugepoint");
    EXPECT_EQ(calls[0].summary, "Claude · Session 5h at 81%");
    EXPECT_EQ(calls[0].urgency, 1);

    // A jump over 90 and 95 tells of the highest only, critically, in place of the window's last one.
    now_ += std::chrono::minutes(1);
    const auto jump = evaluate(97, reset, "zh-Hans");
    ASSERT_EQ(jump.fired.size(), 1u);
    EXPECT_EQ(jump.exitStatus(), 10);
    calls = bus_->calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[1].urgency, 2);
    EXPECT_EQ(calls[1].replacesID, 1u);
    EXPECT_EQ(calls[1].body.rfind("已超过 95%", 0), 0u);

    // The next period: the reset is told, then its own crossings fire again.
    now_ = reset + std::chrono::minutes(5);
    evaluate(10, reset + std::chrono::hours(5));
    evaluate(51, reset + std::chrono::hours(5));
    calls = bus_->calls();
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[2].summary, "Claude · Session 5h has reset");
    EXPECT_EQ(calls[3].summary, "Claude · Session 5h at 51%");
    EXPECT_EQ(inboxRows(), (std::vector<std::string>{
                               "quota|claude|warning|Claude · Session 5h at 81%",
                               "quota|claude|critical|Claude · 会话 5h 已用 97%",
                               "reset|claude|info|Claude · Session 5h has reset",
                               "quota|claude|warning|Claude · Session 5h at 51%"}));
}

TEST_F(AlertBus, TwoProcessesEvaluatingAtOnceFireOnce) {
    const Date reset = now_ + std::chrono::minutes(285);
    evaluate(10, reset);  // installed
    QuotaSourceSnapshotStore{configuration_}.upsert(snapshot(92, reset), std::nullopt, QuotaSourceSyncChannel::kvs);
    const std::vector<std::string> args{"--app-group-dir", (dir_ / "group").string(), "alerts", "check", "--json"};
    testing::CommandResult first, second;
    std::thread a([&] { first = testing::gaugepoint(args); });
    std::thread b([&] { second = testing::gaugepoint(args); });
    a.join();
    b.join();
    EXPECT_EQ(first.exitCode, 10) << first.err;
    EXPECT_EQ(second.exitCode, 10) << second.err;
    EXPECT_EQ(bus_->calls().size(), 1u);
    EXPECT_EQ(inboxRows().size(), 1u);
}

TEST_F(AlertBus, TheStatusLineEvaluatesWhatItRecords) {
    const auto statusLine = [&](int fiveHour) {
        const long resets = long(secondsSince1970(now_)) + 290 * 60;  // too early in the window for a pace
        const std::string input = R"({"model":{"id":"claude-sonnet-4-5"},"rate_limits":{"five_hour":{"used_percentage":)" +
                                  std::to_string(fiveHour) + R"(,"resets_at":)" + std::to_string(resets) + "}}}";
        return testing::gaugepoint({"--app-group-dir", (dir_ / "group").string(), "statusline", "--format", "plain"}, input);
    };
    EXPECT_EQ(statusLine(20).exitCode, 0);
    const auto result = statusLine(85);
    EXPECT_EQ(result.err, "");
    const auto calls = bus_->calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].body.rfind("Crossed 80%", 0), 0u) << calls[0].body;
}

TEST_F(AlertBus, QuietHoursAndADisabledDesktopWriteTheInboxOnly) {
    const Date reset = now_ + std::chrono::minutes(285);
    evaluate(0, reset);
    AlertSettings::set(*configuration_.userDefaults, "quiet-hours", "00:00-00:00");
    EXPECT_EQ(evaluate(60, reset).fired.at(0).desktop, "quiet hours");
    AlertSettings::reset(*configuration_.userDefaults, "quiet-hours");
    AlertSettings::set(*configuration_.userDefaults, "desktop", "off");
    EXPECT_EQ(evaluate(85, reset).fired.at(0).desktop, "desktop off");
    EXPECT_TRUE(bus_->calls().empty());
    EXPECT_EQ(inboxRows().size(), 2u);
}

TEST_F(AlertBus, NoBusAtAllIsNoErrorAndStatusSaysWhy) {
    bus_.reset();
    ::setenv("XDG_RUNTIME_DIR", (dir_ / "no-runtime").c_str(), 1);
    const Date reset = now_ + std::chrono::minutes(285);
    evaluate(0, reset);
    const auto result = evaluate(91, reset);
    ::unsetenv("XDG_RUNTIME_DIR");
    ASSERT_EQ(result.fired.size(), 1u);
    EXPECT_EQ(result.fired[0].desktop.rfind("no session bus", 0), 0u) << result.fired[0].desktop;
    EXPECT_EQ(inboxRows().size(), 1u);
    const auto status = QuotaAlerts::status(configuration_, now_, true);
    EXPECT_FALSE(status.desktopReachable);
    EXPECT_EQ(status.currentPeriods.size(), 3u);  // 50, 80 and 90 of this period
}

TEST_F(AlertBus, AlertsPulledFromAnotherMachineShowOnlyForThisAccountsWindowsAndOnce) {
    const Date reset = now_ + std::chrono::minutes(285);
    QuotaSourceSnapshotStore{configuration_}.upsert(snapshot(40, reset), std::nullopt, QuotaSourceSyncChannel::kvs);
    evaluate(40, reset);
    const auto pulled = [&](std::string key, std::string title) {
        QuotaNotifyArchiveEntry e;
        e.envelopeID = "alert:machine-other:" + key;
        e.threadID = "claude";
        e.createdAt = e.archivedAt = now_;
        e.origin = "sync";
        e.title = std::move(title);
        e.sourceID = "machine-other";
        e.category = "quota";
        e.level = "warning";
        return e;
    };
    char period[32];
    std::snprintf(period, sizeof period, "%.0f", secondsSince1970(reset) + 20);  // the other machine's jitter
    QuotaNotifyInboxStore{configuration_}.upsert(
        {pulled(std::string("threshold|claude|five_hour|") + period + "|80", "ours"),
         pulled("threshold|claude|five_hour|1000|80", "another account's period"),
         pulled("threshold|codex|primary|" + std::string(period) + "|80", "a window this machine does not have")});
    EXPECT_EQ(QuotaAlerts::notifyPulled(configuration_, now_).size(), 1u);
    EXPECT_TRUE(QuotaAlerts::notifyPulled(configuration_, now_).empty());
    evaluate(85, reset);  // already shown here: the local crossing of 80 stays silent
    const auto calls = bus_->calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].summary, "ours");
}

}  // namespace
}  // namespace gaugepoint
