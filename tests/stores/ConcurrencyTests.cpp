#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <thread>

#include "StoreTestSupport.hpp"
#include "gaugepoint/stores/QuotaHistoryStore.hpp"
#include "gaugepoint/stores/QuotaSessionCatalogStore.hpp"
#include "gaugepoint/stores/QuotaSessionFileRegistry.hpp"
#include "gaugepoint/stores/QuotaSessionTokenLedger.hpp"

namespace gaugepoint {
namespace {

using testing::at;
using testing::configurationIn;
using testing::RawDatabase;
using testing::ScratchDirectory;
using testing::snapshotOf;
using testing::inChildProcess;
using testing::exitStatus;

const Date kStart = at("2026-11-21T00:00:00Z");

// Appends `count` snapshots of `source`, one second apart, reading the timeline back every tenth.
// Returns how many calls failed.
int appendMany(const QuotaHistoryStore& store, const std::string& source, int count) {
    int failures = 0;
    for (int i = 0; i < count; ++i) {
        try {
            const auto snapshot = snapshotOf(source, kStart + std::chrono::seconds(i), i % 100);
            if (i % 10 == 0) {
                store.append(snapshot, 365);
            } else {
                store.record(snapshot, 365);
            }
        } catch (const Error& e) {
            std::fprintf(stderr, "%s #%d failed: %s\n", source.c_str(), i, e.what());  // a child cannot ADD_FAILURE
            ++failures;
        }
    }
    return failures;
}

TEST(Concurrency, ThreadsSharingOneStoreLoseNothing) {
    ScratchDirectory dir;
    const QuotaHistoryStore store{configurationIn(dir)};
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&, t, copy = store] { failures += appendMany(copy, "thread-" + std::to_string(t), 40); });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(store.loadTimeline().snapshots.size(), 240u);
}

TEST(Concurrency, TwoProcessesAppendingAndReadingLoseNothing) {
    ScratchDirectory dir;
    const auto config = configurationIn(dir);
    // Each process opens its own connection after the fork; none is carried across it.
    const pid_t child = inChildProcess([&] { return appendMany(QuotaHistoryStore{config}, "child", 150) == 0 ? 0 : 1; });
    const QuotaHistoryStore store{config};
    EXPECT_EQ(appendMany(store, "parent", 150), 0);
    EXPECT_EQ(exitStatus(child), 0);
    const auto timeline = store.loadTimeline();
    EXPECT_EQ(timeline.snapshots.size(), 300u);
}

// Runs `whileHeld` while a second process holds the write lock of `file` for `holdMilliseconds`;
// returns the second process's exit status (0 when it committed).
int whileAnotherProcessHoldsTheWriteLock(const std::filesystem::path& file, int holdMilliseconds,
                                         const std::function<void()>& whileHeld) {
    int fds[2];
    if (::pipe(fds) != 0) return -1;
    const pid_t child = inChildProcess([&] {
        RawDatabase raw{file};
        if (!raw.exec("BEGIN IMMEDIATE; DELETE FROM snapshot_history WHERE id = 'none';").empty()) return 1;
        (void)::write(fds[1], "x", 1);
        std::this_thread::sleep_for(std::chrono::milliseconds(holdMilliseconds));
        return raw.exec("COMMIT").empty() ? 0 : 2;
    });
    char signal;
    if (::read(fds[0], &signal, 1) == 1) whileHeld();
    ::close(fds[0]);
    ::close(fds[1]);
    return exitStatus(child);
}

TEST(Concurrency, WritersWaitForALockHeldShorterThanTheBusyTimeout) {
    ScratchDirectory dir;
    const QuotaHistoryStore store{configurationIn(dir)};
    store.append(snapshotOf("a", kStart), 365);
    const int holder = whileAnotherProcessHoldsTheWriteLock(store.historyURL(), 800, [&] {
        EXPECT_EQ(store.loadTimeline().snapshots.size(), 1u);  // readers are not blocked by the writer
        EXPECT_NO_THROW(store.append(snapshotOf("a", kStart + std::chrono::seconds(1)), 365));
    });
    EXPECT_EQ(holder, 0);
    EXPECT_EQ(store.loadTimeline().snapshots.size(), 2u);
}

TEST(Concurrency, AWriterGivesUpAfterTheBusyTimeout) {
    ScratchDirectory dir;
    const QuotaHistoryStore store{configurationIn(dir)};
    store.append(snapshotOf("a", kStart), 365);
    const int holder = whileAnotherProcessHoldsTheWriteLock(store.historyURL(), 3000, [&] {
        const auto started = std::chrono::steady_clock::now();
        try {
            store.append(snapshotOf("a", kStart + std::chrono::seconds(1)), 365);
            ADD_FAILURE() << "expected the write to time out";
        } catch (const QuotaHistoryStoreError& e) {
            EXPECT_STREQ(e.what(), "execute append: database is locked");
        }
        EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(1900));
    });
    EXPECT_EQ(holder, 0);
}

// A checkpoint never waits: with a reader still on an older snapshot it copies what it can and
// leaves the log; once nobody needs the log it empties it, so that no large log lingers.
TEST(Concurrency, ACheckpointEmptiesTheLogOnlyWhenNoReaderNeedsItAndNeverWaits) {
    ScratchDirectory dir;
    const QuotaHistoryStore store{configurationIn(dir)};
    const std::filesystem::path log = store.historyURL().string() + "-wal";
    appendMany(store, "a", 20);
    ASSERT_GT(std::filesystem::file_size(log), 0u);
    {
        RawDatabase reader{store.historyURL()};
        ASSERT_EQ(reader.exec("BEGIN; SELECT COUNT(*) FROM snapshot_history"), "");  // holds its snapshot
        appendMany(store, "b", 5);
        const auto started = std::chrono::steady_clock::now();
        store.walCheckpoint();
        EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(1000));
        EXPECT_GT(std::filesystem::file_size(log), 0u);
        reader.exec("COMMIT");
    }
    store.walCheckpoint();
    EXPECT_EQ(std::filesystem::file_size(log), 0u);
    EXPECT_EQ(store.loadTimeline().snapshots.size(), 25u);
}

// Each process writes its own descriptors, messages, ledger rows and registry entries in many
// small transactions; every one of them is there afterwards.
int writeSessions(const QuotaSyncConfiguration& config, const std::string& who, int count) {
    const QuotaSessionCatalogStore catalog{config};
    const QuotaSessionTokenLedger ledger{config};
    const QuotaSessionFileRegistry registry{config};
    int failures = 0;
    for (int i = 0; i < count; ++i) {
        try {
            QuotaSessionDescriptor d;
            d.id = who + "-" + std::to_string(i);
            d.provider = {"claude", "Claude"};
            catalog.upsertBatch({d}, "mac");
            QuotaSessionMessage m;
            m.id = "m";
            catalog.replaceMessagesForSession("mac", d.id, {m, m});
            QuotaSnapshot s = snapshotOf(who, kStart);
            s.providers[0].dailyTokenUsage = std::vector<QuotaDailyTokenEntry>{{"2026-11-" + std::to_string(1 + i % 28), 1, i}};
            ledger.upsert(s);
            QuotaSessionFileRegistryEntry e;
            e.path = "/" + d.id;
            e.providerID = "claude";
            registry.upsert(e);
        } catch (const Error& e) {
            std::fprintf(stderr, "%s #%d failed: %s\n", who.c_str(), i, e.what());
            ++failures;
        }
    }
    return failures;
}

TEST(Concurrency, TwoProcessesWritingSessionStoresLoseNothing) {
    ScratchDirectory dir;
    const auto config = configurationIn(dir);
    const pid_t child = inChildProcess([&] { return writeSessions(config, "child", 60) == 0 ? 0 : 1; });
    EXPECT_EQ(writeSessions(config, "parent", 60), 0);
    EXPECT_EQ(exitStatus(child), 0);
    const QuotaSessionCatalogStore catalog{config};
    EXPECT_EQ(catalog.totalCount(), 120);
    EXPECT_EQ(catalog.totalMessageCount(), 240);
    EXPECT_EQ(QuotaSessionTokenLedger{config}.dailySummary("child", 10000).size(), 28u);
    EXPECT_EQ(QuotaSessionFileRegistry{config}.list().size(), 120u);
}

}  // namespace
}  // namespace gaugepoint
