#include <gtest/gtest.h>

#include <thread>

#include "StoreTestSupport.hpp"
#include "gaugepoint/stores/QuotaHistoryStore.hpp"
#include "gaugepoint/stores/QuotaSessionCatalogStore.hpp"
#include "gaugepoint/stores/QuotaSessionFileRegistry.hpp"
#include "gaugepoint/stores/QuotaSessionTokenLedger.hpp"
#include "gaugepoint/stores/QuotaSourceSnapshotStore.hpp"

namespace gaugepoint {
namespace {

using testing::at;
using testing::configurationIn;
using testing::RawDatabase;
using testing::ScratchDirectory;
using testing::snapshotOf;
using testing::failureOf;

TEST(HostileFiles, AFileThatIsNotADatabaseIsReportedAndLeftAlone) {
    ScratchDirectory dir;
    const auto config = configurationIn(dir);
    const std::string junk(5000, 'j');
    std::filesystem::create_directories(*config.appGroupDirectory);
    testing::writeFile(*config.appGroupDirectory / "quota-history.sqlite", junk);
    testing::writeFile(*config.appGroupDirectory / "quota-source-snapshots.sqlite", junk);

    const QuotaHistoryStore history{config};
    EXPECT_TRUE(history.loadTimelineOrEmpty().snapshots.empty());
    EXPECT_FALSE(history.latestSnapshot());
    EXPECT_EQ(failureOf([&] { history.append(snapshotOf("a", at("2026-11-21T00:00:00Z")), 1); }),
              "set journal mode: file is not a database");
    const QuotaSourceSnapshotStore sources{config};
    EXPECT_TRUE(sources.load().entries.empty());
    EXPECT_EQ(failureOf([&] { sources.upsert(snapshotOf("a", at("2026-11-21T00:00:00Z")), {}, QuotaSourceSyncChannel::kvs); }),
              "set journal mode: file is not a database");
    EXPECT_EQ(testing::readFile(history.historyURL()), junk);
    EXPECT_EQ(testing::readFile(sources.databaseURL()), junk);
}

TEST(HostileFiles, ATruncatedDatabaseNeverCrashesAndIsNotEmptied) {
    ScratchDirectory dir;
    const auto config = configurationIn(dir);
    const auto file = *QuotaHistoryStore::databaseURL(config);
    {
        RawDatabase raw{file};
        raw.exec("PRAGMA page_size=1024; CREATE TABLE filler(x BLOB);");
        for (int i = 0; i < 50; ++i) raw.exec("INSERT INTO filler VALUES (randomblob(3000))");
        raw.exec("CREATE TABLE snapshot_history (id TEXT PRIMARY KEY, source_id TEXT NOT NULL DEFAULT '', source_name "
                 "TEXT, generated_at REAL NOT NULL, snapshot_json BLOB NOT NULL, snapshot_encoding TEXT NOT NULL "
                 "DEFAULT 'plain')");
    }
    std::filesystem::resize_file(file, std::filesystem::file_size(file) / 3);
    const auto damaged = testing::readFile(file);
    const QuotaHistoryStore store{config};
    EXPECT_TRUE(store.loadTimelineOrEmpty().snapshots.empty());
    const std::string failure = failureOf([&] { store.append(snapshotOf("a", at("2026-11-21T00:00:00Z")), 1); });
    EXPECT_NE(failure.find("malformed"), std::string::npos) << failure;
    EXPECT_EQ(testing::readFile(file).substr(0, damaged.size()), damaged);
}

TEST(HostileFiles, ATableOfAnotherShapeFailsTheSetUpWithItsReason) {
    ScratchDirectory dir;
    const auto config = configurationIn(dir);
    {
        RawDatabase raw{*QuotaHistoryStore::databaseURL(config)};
        raw.exec("CREATE TABLE snapshot_history (id TEXT, payload TEXT); INSERT INTO snapshot_history VALUES ('k', 'v')");
    }
    const QuotaHistoryStore store{config};
    EXPECT_EQ(failureOf([&] { store.clear(); }), "ensure schema: no such column: generated_at");
    EXPECT_TRUE(store.loadTimelineOrEmpty().snapshots.empty());
    RawDatabase raw{store.historyURL()};
    EXPECT_EQ(raw.column("SELECT payload FROM snapshot_history"), std::vector<std::string>{"v"});
}

TEST(HostileFiles, AFailedSetUpIsRetriedOnTheNextCall) {
    ScratchDirectory dir;
    const auto config = configurationIn(dir);
    const auto file = *QuotaHistoryStore::databaseURL(config);
    RawDatabase holder{file};
    // Another process holds the file exclusively while the store first opens: WAL cannot be set.
    ASSERT_EQ(holder.exec("PRAGMA locking_mode=EXCLUSIVE; BEGIN EXCLUSIVE;"), "");
    const QuotaHistoryStore store{config};
    EXPECT_EQ(failureOf([&] { store.clear(); }), "set journal mode: database is locked");
    ASSERT_EQ(holder.exec("COMMIT; PRAGMA locking_mode=NORMAL; SELECT 1 FROM sqlite_master;"), "");
    EXPECT_EQ(store.clear(), 0);
    store.append(snapshotOf("a", at("2026-11-21T00:00:00Z")), 30);
    EXPECT_EQ(store.loadTimeline().snapshots.size(), 1u);
}

TEST(HostileFiles, TheSessionStoresReportAForeignFileAndNeverEmptyIt) {
    ScratchDirectory dir;
    const auto config = configurationIn(dir);
    std::filesystem::create_directories(*config.appGroupDirectory);
    const std::string junk = "SQLite format 3" + std::string(4000, '\x7f');  // a header, then garbage
    const QuotaSessionTokenLedger ledger{config};
    const QuotaSessionCatalogStore catalog{config};
    const QuotaSessionFileRegistry registry{config};
    for (const auto& file : {ledger.databaseURL(), catalog.databaseURL(), registry.databaseURL()}) testing::writeFile(file, junk);

    QuotaSnapshot snapshot = snapshotOf("a", at("2026-11-21T00:00:00Z"));
    snapshot.providers[0].dailyTokenUsage = std::vector<QuotaDailyTokenEntry>{{"2026-11-21", 1, 1}};
    EXPECT_EQ(failureOf([&] { ledger.upsert(snapshot); }), "set journal mode: file is not a database");
    EXPECT_TRUE(ledger.dailySummary("a", 7).empty());
    QuotaSessionDescriptor descriptor;
    descriptor.id = "s";
    EXPECT_EQ(failureOf([&] { catalog.upsert(descriptor, "a"); }), "set journal mode: file is not a database");
    EXPECT_EQ(failureOf([&] { (void)registry.list(); }), "set journal mode: file is not a database");
    for (const auto& file : {ledger.databaseURL(), catalog.databaseURL(), registry.databaseURL()}) {
        EXPECT_EQ(testing::readFile(file), junk) << file;
    }
}

}  // namespace
}  // namespace gaugepoint
