#include <gtest/gtest.h>

#include "StoreTestSupport.hpp"
#include "gaugepoint/stores/QuotaSourceSnapshotStore.hpp"

namespace gaugepoint {
namespace {

using Channel = QuotaSourceSyncChannel;
using testing::at;
using testing::configurationIn;
using testing::RawDatabase;
using testing::ScratchDirectory;
using testing::snapshotOf;

TEST(SourceStore, RecordsAreKeyedBySourceThenTokenThenChannel) {
    ScratchDirectory dir;
    const QuotaSourceSnapshotStore store{configurationIn(dir, at("2026-11-21T12:00:00Z"))};
    const auto withSource = store.upsert(snapshotOf("mac-1", at("2026-11-21T11:00:00Z")), "tok", Channel::pairing);
    EXPECT_EQ(withSource.id, "mac-1");
    EXPECT_EQ(withSource.sourceID, "mac-1");
    EXPECT_EQ(withSource.sourceName, "Mac mac-1");
    EXPECT_EQ(withSource.hostName, "mac-1.local");
    EXPECT_EQ(withSource.pairingToken, "tok");
    EXPECT_EQ(withSource.receivedAt, at("2026-11-21T12:00:00Z"));

    const auto withToken = store.upsert(snapshotOf("", at("2026-11-21T11:00:00Z")), "tok-2", Channel::kvs);
    EXPECT_EQ(withToken.id, "tok-2");
    EXPECT_FALSE(withToken.sourceID);
    EXPECT_FALSE(withToken.hostName);
    EXPECT_EQ(withToken.sourceName, "Unknown Source");

    EXPECT_EQ(store.upsert(snapshotOf("", at("2026-11-21T11:00:00Z")), std::nullopt, Channel::kvs).id, "kvs");
    EXPECT_EQ(store.upsert(snapshotOf("", at("2026-11-21T11:00:00Z")), std::nullopt, Channel::pairing).id, "pairing");

    const auto registry = store.load();
    EXPECT_EQ(registry.entries.size(), 4u);
    EXPECT_EQ(store.loadRecord("mac-1"), withSource);
    EXPECT_FALSE(store.loadRecord("nobody"));
}

TEST(SourceStore, ALaterSnapshotReplacesItsSourcesRowAndLoadsNewestFirst) {
    ScratchDirectory dir;
    auto config = configurationIn(dir);
    auto now = std::make_shared<Date>(at("2026-11-21T10:00:00Z"));
    config.clock = Clock{[now] { return *now; }};
    const QuotaSourceSnapshotStore store{config};
    store.upsert(snapshotOf("a", at("2026-11-21T09:00:00Z"), 10), std::nullopt, Channel::kvs);
    *now += std::chrono::minutes(1);
    store.upsert(snapshotOf("b", at("2026-11-21T09:00:00Z")), std::nullopt, Channel::kvs);
    *now += std::chrono::minutes(1);
    store.upsert(snapshotOf("a", at("2026-11-21T09:05:00Z"), 70), std::nullopt, Channel::kvs);
    const auto registry = store.load();
    ASSERT_EQ(registry.entries.size(), 2u);
    EXPECT_EQ(registry.entries[0].id, "a");
    EXPECT_EQ(registry.entries[0].snapshot.providers[0].windows[0].usedPercent, 70);
    EXPECT_EQ(registry.entries[1].id, "b");
}

TEST(SourceStore, SaveReplacesTheTableAndRemoveMatchesEachKey) {
    ScratchDirectory dir;
    const QuotaSourceSnapshotStore store{configurationIn(dir)};
    auto a = store.recordFor(snapshotOf("a", at("2026-11-21T09:00:00Z")), "tok", Channel::pairing);
    auto b = store.recordFor(snapshotOf("b", at("2026-11-21T09:00:00Z")), std::nullopt, Channel::kvs);
    auto b2 = b;
    b2.id = "b-old";
    store.upsert(snapshotOf("z", at("2026-11-21T09:00:00Z")), std::nullopt, Channel::kvs);
    store.save({1, {a, b, b2}});
    EXPECT_EQ(store.load().entries.size(), 3u);
    EXPECT_FALSE(store.loadRecord("z"));
    EXPECT_EQ(store.removeRecordsWithSourceID("b"), 2);
    EXPECT_EQ(store.removeRecordsWithPairingToken("tok"), 1);
    store.save({1, {b}});
    EXPECT_EQ(store.remove("b"), 1);
    EXPECT_EQ(store.remove("b"), 0);
    store.save({1, {a, b}});
    store.save({});
    EXPECT_TRUE(store.load().entries.empty());
}

TEST(SourceStore, TrimNeverRemovesTheNewestRowOfASource) {
    ScratchDirectory dir;
    const QuotaSourceSnapshotStore store{configurationIn(dir, at("2026-11-21T12:00:00Z"))};
    const auto record = [&](std::string id, std::optional<std::string> sourceID, std::optional<std::string> token,
                            const char* received) {
        auto r = store.recordFor(snapshotOf("", at("2026-11-01T00:00:00Z")), token, Channel::kvs);
        r.id = std::move(id);
        r.sourceID = std::move(sourceID);
        r.receivedAt = at(received);
        return r;
    };
    store.save({1,
                {record("a-new", "a", {}, "2026-11-20T00:00:00Z"), record("a-old", "a", {}, "2026-11-10T00:00:00Z"),
                 record("lonely", "l", {}, "2025-01-01T00:00:00Z"), record("t1", {}, "tok", "2026-11-02T00:00:00Z"),
                 record("t2", {}, "tok", "2026-11-03T00:00:00Z"), record("bare", {}, {}, "2026-01-01T00:00:00Z")}});
    EXPECT_EQ(store.trimOldEntries(86400), 2);  // a-old and t1
    std::vector<std::string> ids;
    for (const auto& r : store.load().entries) ids.push_back(r.id);
    EXPECT_EQ(ids, (std::vector<std::string>{"a-new", "t2", "bare", "lonely"}));
    EXPECT_EQ(store.trimOldEntries(0), 0);
}

TEST(SourceStore, EncodingFailuresAndMissingContainersHaveTheirOwnErrors) {
    ScratchDirectory dir;
    const QuotaSourceSnapshotStore store{configurationIn(dir)};
    auto snapshot = snapshotOf("a", at("2026-11-21T09:00:00Z"));
    snapshot.providers[0].windows[0].usedPercent = std::numeric_limits<double>::infinity();
    try {
        store.upsert(snapshot, std::nullopt, Channel::kvs);
        FAIL();
    } catch (const QuotaSourceSnapshotStoreError& e) {
        EXPECT_EQ(e.kind(), QuotaSourceSnapshotStoreError::Kind::encodeFailure);
        EXPECT_STREQ(e.what(), "Unable to serialize snapshot");
    }
    testing::writeFile(dir / "file", "x");
    QuotaSyncConfiguration nowhere;
    nowhere.appGroupDirectory = dir / "file" / "group";
    nowhere.appGroupIdentifier = "group.test";
    const QuotaSourceSnapshotStore lost{nowhere};
    EXPECT_TRUE(lost.load().entries.empty());
    EXPECT_EQ(lost.trimOldEntries(1), 0);
    try {
        lost.clear();
        FAIL();
    } catch (const QuotaSourceSnapshotStoreError& e) {
        EXPECT_EQ(e.kind(), QuotaSourceSnapshotStoreError::Kind::missingAppGroupContainer);
        EXPECT_STREQ(e.what(), "The App Group container is unavailable: group.test.");
    }
    const QuotaSourceSnapshotStore overridden{nowhere, dir / "override"};
    EXPECT_EQ(overridden.databaseURL(), dir / "override" / "quota-source-snapshots.sqlite");
    EXPECT_EQ(overridden.clear(), 0);
}

}  // namespace
}  // namespace gaugepoint
