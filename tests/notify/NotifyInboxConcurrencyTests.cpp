#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "InboxTestSupport.hpp"

namespace gaugepoint {
namespace {

using namespace testing;

TEST(NotifyInboxConcurrency, AListIsReadWhileALongWriteHoldsTheWriteSide) {
    ScratchDirectory dir;
    auto config = configurationIn(dir);
    std::promise<void> writing, listRead;
    std::shared_future<void> listReadSignal = listRead.get_future().share();
    // The trim reads the clock inside its transaction, holding the write side and SQLite's write
    // lock; this clock keeps them held until the list has been read, or 10 s.
    config.clock = Clock([&] {
        writing.set_value();
        listReadSignal.wait_for(std::chrono::seconds(10));
        return dateFromSeconds(kNoon);
    });
    const QuotaNotifyInboxStore store{config};
    store.upsert({entry("old", kNoon - 7200), entry("a", kNoon - 60), entry("b", kNoon)});

    std::atomic<bool> writeDone{false};
    std::int64_t trimmed = -1;
    std::thread writer([&] {
        trimmed = store.trimOldEntries(3600);
        writeDone = true;
    });
    writing.get_future().wait();
    const auto page = store.loadPage(0, 50);
    const auto count = store.totalCount();
    const bool readDuringWrite = !writeDone;
    listRead.set_value();
    writer.join();

    EXPECT_TRUE(readDuringWrite) << "the list waited for the write";
    EXPECT_EQ(idsOf(page), (std::vector<std::string>{"b", "a", "old"}));
    EXPECT_EQ(count, 3);
    EXPECT_EQ(trimmed, 1);
    EXPECT_EQ(store.totalCount(), 2);
}

TEST(NotifyInboxConcurrency, ProcessesOpeningAnOldInboxAtOnceKeepEachOthersRows) {
    ScratchDirectory dir;
    const auto config = configurationIn(dir);
    std::filesystem::create_directories(*config.appGroupDirectory);
    {
        RawDatabase raw{*config.appGroupDirectory / "quota-notify-inbox.sqlite"};
        raw.exec("PRAGMA user_version = 1; CREATE TABLE notify_inbox (envelope_id TEXT PRIMARY KEY, json TEXT);"
                 "INSERT INTO notify_inbox VALUES ('v1', '{}');");
    }
    int start[2];
    ASSERT_EQ(::pipe(start), 0);
    std::vector<pid_t> children;
    for (int i = 0; i < 4; ++i) {
        children.push_back(inChildProcess([&, i] {
            ::close(start[1]);
            char byte;
            (void)::read(start[0], &byte, 1);  // returns when the parent closes its end: all start together
            try {
                QuotaNotifyInboxStore{config}.upsert(entry("child-" + std::to_string(i), kNoon));
                return 0;
            } catch (const Error& e) {
                std::fprintf(stderr, "child %d: %s\n", i, e.what());
                return 1;
            }
        }));
    }
    ::close(start[0]);
    ::close(start[1]);
    for (const pid_t child : children) EXPECT_EQ(exitStatus(child), 0);
    EXPECT_EQ(idsOf(QuotaNotifyInboxStore{config}.loadAllEntries()),
              (std::vector<std::string>{"child-3", "child-2", "child-1", "child-0"}));
}

}  // namespace
}  // namespace gaugepoint
