#include <gtest/gtest.h>

#include <limits>

#include "StoreTestSupport.hpp"
#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/stores/QuotaHistoryStore.hpp"
#include "lzfse/Lzfse.hpp"

namespace gaugepoint {
namespace {

using testing::at;
using testing::configurationIn;
using testing::RawDatabase;
using testing::ScratchDirectory;
using testing::snapshotOf;

TEST(HistoryStore, AppendsCompressedRowsAndLoadsThemOldestFirst) {
    ScratchDirectory dir;
    const QuotaHistoryStore store{configurationIn(dir)};
    const auto later = snapshotOf("mac-1", at("2026-11-21T11:00:00Z"));
    const auto earlier = snapshotOf("", at("2026-11-21T10:00:00.25Z"));
    store.append(later, 30);
    const auto timeline = store.append(earlier, 30);
    ASSERT_EQ(timeline.snapshots.size(), 2u);
    EXPECT_EQ(timeline.snapshots[0], earlier);
    EXPECT_EQ(timeline.snapshots[1], later);
    EXPECT_EQ(store.latestSnapshot(), later);

    RawDatabase raw{store.historyURL()};
    EXPECT_EQ(raw.column("SELECT id FROM snapshot_history ORDER BY generated_at"),
              (std::vector<std::string>{"unknown_2026-11-21T10:00:00Z", "mac-1_2026-11-21T11:00:00Z"}));
    EXPECT_EQ(raw.column("SELECT DISTINCT snapshot_encoding FROM snapshot_history"), std::vector<std::string>{"lzfse"});
    EXPECT_EQ(raw.column("SELECT quote(source_name) FROM snapshot_history ORDER BY generated_at"),
              (std::vector<std::string>{"NULL", "'Mac mac-1'"}));
    EXPECT_EQ(raw.column("PRAGMA journal_mode"), std::vector<std::string>{"wal"});
}

TEST(HistoryStore, OneRowPerSourceAndSecondTheLaterWriteWins) {
    ScratchDirectory dir;
    const QuotaHistoryStore store{configurationIn(dir)};
    store.append(snapshotOf("mac-1", at("2026-11-21T11:00:00.1Z"), 10), 30);
    const auto timeline = store.append(snapshotOf("mac-1", at("2026-11-21T11:00:00.9Z"), 90), 30);
    ASSERT_EQ(timeline.snapshots.size(), 1u);
    EXPECT_EQ(timeline.snapshots[0].providers[0].windows[0].usedPercent, 90);
}

TEST(HistoryStore, RetentionAndTrimCutEverySourceAtTheirCutoff) {
    ScratchDirectory dir;
    const QuotaHistoryStore store{configurationIn(dir, at("2026-11-21T12:00:00Z"))};
    store.saveTimeline({1, {snapshotOf("a", at("2026-11-10T12:00:00Z")), snapshotOf("b", at("2026-11-13T11:59:59Z")),
                            snapshotOf("a", at("2026-11-14T12:00:00Z")), snapshotOf("b", at("2026-11-20T00:00:00Z"))}});
    EXPECT_EQ(store.loadTimeline(2).snapshots.size(), 1u);
    EXPECT_EQ(store.loadTimeline(7).snapshots.size(), 2u);  // the cutoff itself is kept
    const auto timeline = store.append(snapshotOf("c", at("2026-11-21T12:00:00Z")), 8);
    EXPECT_EQ(timeline.snapshots.size(), 3u);
    EXPECT_EQ(timeline.snapshots.front().source->sourceID, "a");
    EXPECT_EQ(store.trimOlderThan(1), 2);
    EXPECT_EQ(store.removeSnapshots("c").snapshots.size(), 0u);
    store.append(snapshotOf("c", at("2026-11-21T12:00:00Z")), 8);
    EXPECT_EQ(store.clear(), 1);
    EXPECT_EQ(store.loadTimeline().snapshots.size(), 0u);
}

TEST(HistoryStore, ADatabaseFromBeforeTheEncodingColumnGainsItAndReadsAsPlain) {
    ScratchDirectory dir;
    const auto config = configurationIn(dir);
    const auto file = *QuotaHistoryStore::databaseURL(config);
    const auto old = snapshotOf("mac-1", at("2026-11-01T08:00:00Z"));
    {
        RawDatabase raw{file};
        ASSERT_EQ(raw.exec("CREATE TABLE snapshot_history (id TEXT PRIMARY KEY, source_id TEXT NOT NULL DEFAULT '', "
                           "source_name TEXT, generated_at REAL NOT NULL, snapshot_json BLOB NOT NULL)"),
                  "");
        ASSERT_EQ(raw.exec("INSERT INTO snapshot_history VALUES ('x', 'mac-1', 'Mac', 1793520000, '" +
                           json::encode(old) + "')"),
                  "");
    }
    const QuotaHistoryStore store{config};
    const auto timeline = store.loadTimeline();
    ASSERT_EQ(timeline.snapshots.size(), 1u);
    EXPECT_EQ(timeline.snapshots[0], old);
    RawDatabase raw{file};
    EXPECT_EQ(raw.column("SELECT snapshot_encoding FROM snapshot_history"), std::vector<std::string>{"plain"});
}

TEST(HistoryStore, ARowWrittenByAnotherProgramReadsAndADamagedRowIsSkipped) {
    ScratchDirectory dir;
    const QuotaHistoryStore store{configurationIn(dir)};
    store.clear();  // creates the schema
    const auto theirs = snapshotOf("phone", at("2026-11-21T09:00:00Z"));
    const std::string compressed = lzfse::compressString(json::encode(theirs));
    {
        RawDatabase raw{store.historyURL()};
        sqlite3_stmt* insert = nullptr;
        sqlite3_prepare_v2(raw.handle(), "INSERT INTO snapshot_history VALUES (?, 'phone', 'Phone', ?, ?, ?)", -1, &insert, nullptr);
        const auto row = [&](const char* id, double at, const std::string& blob, const char* encoding) {
            sqlite3_reset(insert);
            sqlite3_bind_text(insert, 1, id, -1, SQLITE_TRANSIENT);
            sqlite3_bind_double(insert, 2, at);
            sqlite3_bind_blob(insert, 3, blob.data(), int(blob.size()), SQLITE_TRANSIENT);
            sqlite3_bind_text(insert, 4, encoding, -1, SQLITE_TRANSIENT);
            ASSERT_EQ(sqlite3_step(insert), SQLITE_DONE);
        };
        row("theirs", secondsSince1970(theirs.generatedAt), compressed, "lzfse");
        row("damaged", secondsSince1970(theirs.generatedAt) + 60, compressed.substr(0, 40), "lzfse");
        row("not-json", secondsSince1970(theirs.generatedAt) + 120, "{\"version\":", "plain");
        sqlite3_finalize(insert);
    }
    const auto timeline = store.loadTimeline();
    ASSERT_EQ(timeline.snapshots.size(), 1u);
    EXPECT_EQ(timeline.snapshots[0], theirs);
    EXPECT_EQ(store.latestSnapshot(), theirs);  // the newest rows are damaged: the newest that decodes
    RawDatabase raw{store.historyURL()};
    EXPECT_EQ(raw.column("SELECT count(*) FROM snapshot_history"), std::vector<std::string>{"3"});  // nothing deleted
}

TEST(HistoryStore, BringsTheLegacyCloudDocumentOverOnce) {
    ScratchDirectory dir;
    auto config = configurationIn(dir);
    config.ubiquityDirectory = dir.path() / "cloud";
    std::filesystem::create_directories(dir.path() / "cloud" / "Documents");
    const QuotaHistoryTimeline legacy{1, {snapshotOf("old-mac", at("2026-10-01T00:00:00Z")),
                                          snapshotOf("old-mac", at("2026-10-02T00:00:00Z"))}};
    testing::writeFile(dir.path() / "cloud" / "Documents" / "quota-history.json", json::encode(legacy));

    EXPECT_EQ(QuotaHistoryStore{config}.loadTimeline(), legacy);
    EXPECT_TRUE(config.userDefaults->boolValue("quota.historyStore.migratedFromICloud"));

    // Once marked, a fresh database (another directory) imports nothing.
    auto second = config;
    second.appGroupDirectory = dir.path() / "group2";
    EXPECT_TRUE(QuotaHistoryStore{second}.loadTimeline().snapshots.empty());

    // Without the marker, an existing database (here an empty file, which SQLite reads as an
    // empty database) is taken as already migrated.
    auto third = configurationIn(dir);
    third.appGroupDirectory = dir.path() / "group3";
    third.ubiquityDirectory = config.ubiquityDirectory;
    std::filesystem::create_directories(dir.path() / "group3");
    testing::writeFile(dir.path() / "group3" / QuotaHistoryStore::defaultHistoryFilename, "");
    EXPECT_TRUE(QuotaHistoryStore{third}.loadTimeline().snapshots.empty());
    EXPECT_TRUE(third.userDefaults->boolValue("quota.historyStore.migratedFromICloud"));
}

TEST(HistoryStore, WithoutAnAppGroupDirectoryReadsAreEmptyAndWritesFail) {
    ScratchDirectory dir;
    testing::writeFile(dir / "file", "x");
    QuotaSyncConfiguration config;
    config.appGroupDirectory = dir / "file" / "group";  // cannot be created under a file
    const QuotaHistoryStore store{config};
    EXPECT_TRUE(store.loadTimelineOrEmpty().snapshots.empty());
    EXPECT_FALSE(store.latestSnapshot());
    try {
        store.append(snapshotOf("a", at("2026-11-21T00:00:00Z")), 1);
        FAIL();
    } catch (const QuotaHistoryStoreError& e) {
        EXPECT_EQ(e.kind(), QuotaHistoryStoreError::Kind::missingLocalStorageContainer);
    }
}

TEST(HistoryStore, ASnapshotJsonCannotHoldFailsAsThisStoresErrorAndWritesNothing) {
    ScratchDirectory dir;
    const QuotaHistoryStore store{configurationIn(dir)};
    try {
        store.append(snapshotOf("a", at("2026-11-21T00:00:00Z"), std::numeric_limits<double>::infinity()), 1);
        FAIL();
    } catch (const QuotaHistoryStoreError& e) {
        EXPECT_STREQ(e.what(), "execute append: a number is not finite and cannot be written as JSON");
    }
    EXPECT_TRUE(store.loadTimeline().snapshots.empty());
}

// Control characters grow six-fold in JSON: a document that fits the input limit may not fit
// the read limit once stored, and must then leave the row it would replace as it was.
TEST(HistoryStore, ASnapshotTooLargeToReadBackIsRefusedAndKeepsTheRowItWouldReplace) {
    ScratchDirectory dir;
    const QuotaHistoryStore store{configurationIn(dir)};
    const auto kept = snapshotOf("a", at("2026-11-21T00:00:00Z"));
    store.append(kept, 1);
    auto huge = kept;
    huge.providers[0].displayName = std::string(11u << 20, '\x01');
    try {
        store.append(huge, 1);
        FAIL();
    } catch (const QuotaHistoryStoreError& e) {
        EXPECT_NE(std::string(e.what()).find("read back; nothing was stored"), std::string::npos) << e.what();
    }
    EXPECT_EQ(store.loadTimeline().snapshots, std::vector<QuotaSnapshot>{kept});
}

}  // namespace
}  // namespace gaugepoint
