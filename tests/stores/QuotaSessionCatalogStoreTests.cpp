#include <gtest/gtest.h>

#include <cstdlib>
#include <limits>
#include <set>

#include "StoreTestSupport.hpp"
#include "gaugepoint/stores/QuotaSessionCatalogStore.hpp"

namespace gaugepoint {
namespace {

using testing::at;
using testing::configurationIn;
using testing::RawDatabase;
using testing::ScratchDirectory;

QuotaSessionDescriptor session(std::string id, std::optional<Date> ended = std::nullopt, std::string title = "t") {
    QuotaSessionDescriptor d;
    d.id = std::move(id);
    d.sourceID = "ignored";  // the store writes the source it is given
    d.sourceName = "Mac";
    d.provider = {"claude", "Claude"};
    d.title = std::move(title);
    d.endedAt = ended;
    d.tokenUsage = {1, 2, 3, 4, std::nullopt};
    return d;
}

QuotaSessionMessage message(QuotaSessionRole role, std::string text, std::optional<Date> time,
                            std::optional<QuotaSessionTokenUsage> usage = std::nullopt) {
    QuotaSessionMessage m;
    m.id = "m";
    m.role = role;
    m.text = std::move(text);
    m.timestamp = time;
    m.model = QuotaSessionModelIdentity{"claude-sonnet-4-5", "Sonnet"};
    m.tokenUsage = usage;
    return m;
}

class CatalogStore : public ::testing::Test {
protected:
    // A store whose clock reads `now`, on the same file.
    QuotaSessionCatalogStore at(const char* now) const { return QuotaSessionCatalogStore{configurationIn(dir, testing::at(now))}; }
    std::vector<std::string> column(const std::string& sql) const { return RawDatabase{store.databaseURL()}.column(sql); }

    ScratchDirectory dir;
    QuotaSessionCatalogStore store = at("2026-11-21T10:00:00Z");
};

TEST_F(CatalogStore, UpsertKeepsInsertedAtAndKeepsUpdatedAtWhileTheDescriptorIsUnchanged) {
    store.upsert(session("s1"), "mac");
    at("2026-11-21T11:00:00Z").upsert(session("s1"), "mac");  // unchanged
    EXPECT_EQ(column("SELECT inserted_at || ' ' || updated_at FROM session_descriptors"),
              std::vector<std::string>{"1795255200.0 1795255200.0"});
    at("2026-11-21T12:00:00Z").upsertBatch({session("s1", std::nullopt, "renamed")}, "mac");
    EXPECT_EQ(column("SELECT inserted_at || ' ' || updated_at || ' ' || title || ' ' || total_tokens FROM session_descriptors"),
              std::vector<std::string>{"1795255200.0 1795262400.0 renamed 10"});
    const auto stored = store.loadDescriptor("mac", "s1");
    ASSERT_TRUE(stored);
    EXPECT_EQ(stored->sourceID, "mac");
    EXPECT_EQ(stored->title, "renamed");

    auto overflowing = session("s2");
    overflowing.tokenUsage.inputTokens = std::numeric_limits<std::int64_t>::max();
    EXPECT_EQ(testing::failureOf([&] { store.upsert(overflowing, "mac"); }), "Unable to encode session descriptor");
}

TEST_F(CatalogStore, ReplacingASourceDeletesOnlyItsMissingDescriptors) {
    store.upsertBatch({session("a"), session("b"), session("c")}, "mac");
    store.upsertBatch({session("a"), session("b")}, "linux");
    EXPECT_EQ(store.replaceDescriptorsForSource("mac", {session("b"), session("d")}), 2);
    const auto keys = store.loadDescriptorRowIDs();
    EXPECT_EQ(std::set(keys.begin(), keys.end()),
              (std::set<QuotaSessionDescriptorKey>{{"mac", "b"}, {"mac", "d"}, {"linux", "a"}, {"linux", "b"}}));
    EXPECT_EQ(store.replaceDescriptorsForSource("linux", {}), 2);
    EXPECT_EQ(store.totalCount(), 2);
    EXPECT_EQ(store.descriptorCountsBySourceID(), (std::map<std::string, std::int64_t>{{"mac", 2}}));
    EXPECT_EQ(store.removeDescriptors({{"mac", "b"}, {"mac", "nope"}}), 1);
}

TEST_F(CatalogStore, PagesComeLatestEndedFirst) {
    std::vector<QuotaSessionDescriptor> many;
    for (int i = 0; i < 25; ++i) many.push_back(session("s" + std::to_string(i), testing::at("2026-11-01T00:00:00Z") + std::chrono::hours(i)));
    store.upsertBatch(many, "mac");
    store.upsert(session("other", testing::at("2026-12-01T00:00:00Z")), "linux");
    const auto page = store.loadDescriptors("mac", 10, 20);
    ASSERT_EQ(page.size(), 5u);
    EXPECT_EQ(page.front().id, "s4");
    EXPECT_EQ(page.back().id, "s0");
    EXPECT_EQ(store.loadDescriptors(std::nullopt, 1, 0).front().id, "other");
    EXPECT_EQ(store.totalCount("mac"), 25);
    EXPECT_EQ(store.loadAllDescriptors("linux").size(), 1u);
    EXPECT_EQ(store.latestDescriptorUpdatedAt("mac"), testing::at("2026-11-21T10:00:00Z"));
    EXPECT_FALSE(store.latestDescriptorUpdatedAt("nobody"));
}

TEST_F(CatalogStore, MessagesAreReplacedWholeAndCountedPerSession) {
    const std::vector messages{message(QuotaSessionRole::user, "fix it", testing::at("2026-11-21T09:00:00Z")),
                               message(QuotaSessionRole::assistant, "", testing::at("2026-11-21T09:01:00Z"),
                                       QuotaSessionTokenUsage{10, 20, 30, 40, std::nullopt})};
    store.replaceMessagesForSession("mac", "s1", messages);
    store.replaceMessagesForSession("mac", "s1", messages);  // replaced, not added to
    store.replaceMessagesForSession("mac", "ghost", {messages[0]});
    const auto rows = store.loadPersistedMessageRows("mac", "s1");
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[1], (PersistedSessionMessageRow{1, "assistant", std::nullopt, 1795251660.0, "claude-sonnet-4-5", 100,
                                                   1795255200.0, 1795255200.0}));
    EXPECT_EQ(store.loadMessages("mac", "s1", 1, 1).front().seq, 1);
    EXPECT_EQ(store.messageCount("mac", "s1"), 2);
    EXPECT_EQ(store.totalMessageCount(), 3);

    store.upsert(session("s1"), "mac");
    EXPECT_EQ(store.countDistinctMessageSessions(), 2);
    EXPECT_EQ(store.countOrphanedMessageSessions(), 1);
    const auto report = QuotaSessionCatalogIntegrityChecker{store}.run();
    EXPECT_EQ(report.totalDescriptors, 1);
    EXPECT_EQ(report.totalMessageRows, 3);
    EXPECT_EQ(report.orphanedMessageSessionCount, 1);
    EXPECT_EQ(report.anomaliesFound, 1);
    EXPECT_EQ(store.removeMessagesForSessions("mac", {"ghost", "s1"}), 3);
}

// Many rows share one updated_at; pages with a small limit still deliver every row once.
TEST_F(CatalogStore, IncrementalExportsLoseNothingAcrossTiesAndResendNothing) {
    std::vector<QuotaSessionDescriptor> batch;
    for (int i = 0; i < 10; ++i) batch.push_back(session("s" + std::to_string(i)));
    store.upsertBatch(batch, "mac");
    for (int i = 0; i < 4; ++i) store.replaceMessagesForSession("mac", "s" + std::to_string(i), {message(QuotaSessionRole::user, "x", {})});

    const auto drain = [&](const QuotaSessionCatalogStore& s) {
        std::multiset<std::string> seen;
        for (;;) {
            const auto page = s.exportIncrementalDescriptors("laptop", 3);
            if (page.descriptors.empty()) return seen;
            for (const auto& d : page.descriptors) seen.insert(d.id);
            s.updateWatermark("laptop", QuotaSessionCatalogStore::descriptorsTable, page.watermark);
        }
    };
    EXPECT_EQ(drain(store).size(), 10u);
    EXPECT_TRUE(drain(store).empty());
    at("2026-11-21T11:00:00Z").upsertBatch(batch, "mac");  // unchanged: not resent
    EXPECT_TRUE(drain(store).empty());
    auto changed = batch[7];
    changed.title = "new";
    at("2026-11-21T11:00:00Z").upsert(changed, "mac");
    EXPECT_EQ(drain(store), std::multiset<std::string>{"s7"});
    EXPECT_EQ(store.watermark("desktop", QuotaSessionCatalogStore::descriptorsTable), QuotaSessionSyncWatermark{});

    std::size_t messages = 0;
    for (auto page = store.exportIncrementalMessages("laptop", 3); !page.messages.empty();
         page = store.exportIncrementalMessages("laptop", 3)) {
        messages += page.messages.size();
        store.updateWatermark("laptop", QuotaSessionCatalogStore::messagesTable, page.watermark);
    }
    EXPECT_EQ(messages, 4u);
    EXPECT_EQ(store.messagesSince(testing::at("2026-11-21T09:00:00Z"), 10).size(), 4u);
    EXPECT_EQ(store.descriptorsSince(testing::at("2026-11-21T10:30:00Z"), 10).size(), 1u);
    EXPECT_EQ(store.clearAllWatermarks(), 2);
}

TEST_F(CatalogStore, BucketsFollowTheCalendarAcrossAClockChange) {
    // New York, 2026-11-01 has 25 hours.
    const auto ny = *LocalCalendar::inTimeZone("America/New_York");
    store.replaceMessagesForSession("mac", "a", {message(QuotaSessionRole::user, "", testing::at("2026-11-01T04:30:00Z")),
                                                 message(QuotaSessionRole::user, "", testing::at("2026-11-02T04:30:00Z")),
                                                 message(QuotaSessionRole::user, "", testing::at("2026-11-02T05:30:00Z"))});
    store.replaceMessagesForSession("mac", "b", {message(QuotaSessionRole::user, "", testing::at("2026-11-01T05:10:00Z")),
                                                 message(QuotaSessionRole::user, "", testing::at("2026-10-01T00:00:00Z"))});
    const auto days = store.messageDayBuckets(testing::at("2026-10-15T00:00:00Z"), std::nullopt, ny);
    EXPECT_EQ(days, (std::vector<QuotaSessionMessageBucket>{{testing::at("2026-11-01T04:00:00Z"), 3, 2},
                                                            {testing::at("2026-11-02T05:00:00Z"), 1, 1}}));
    const auto hours = store.messageHourBuckets(testing::at("2026-10-15T00:00:00Z"), "mac", ny);
    ASSERT_EQ(hours.size(), 4u);
    EXPECT_EQ(hours[1], (QuotaSessionMessageBucket{testing::at("2026-11-01T05:00:00Z"), 1, 1}));
}

TEST_F(CatalogStore, AnOldCatalogueOpensWithItsDataAndTheBackfills) {
    const auto file = dir / "group" / QuotaSessionCatalogStore::defaultFilename;
    std::filesystem::create_directories(file.parent_path());
    {
        RawDatabase raw{file};
        ASSERT_EQ(raw.exec(R"(
            CREATE TABLE session_descriptors (id TEXT NOT NULL, source_id TEXT NOT NULL, provider_id TEXT NOT NULL,
                provider_name TEXT, project_path TEXT, title TEXT, started_at REAL, ended_at REAL,
                message_count INTEGER DEFAULT 0, prompt_count INTEGER DEFAULT 0, total_tokens INTEGER DEFAULT 0,
                sync_mode TEXT NOT NULL DEFAULT 'lite', updated_at REAL NOT NULL, descriptor_json TEXT,
                PRIMARY KEY (source_id, id));
            CREATE TABLE session_messages (id INTEGER PRIMARY KEY AUTOINCREMENT, session_id TEXT NOT NULL,
                source_id TEXT NOT NULL, seq INTEGER NOT NULL DEFAULT 0, role TEXT NOT NULL, text TEXT, timestamp REAL,
                model TEXT, token_count INTEGER DEFAULT 0, inserted_at REAL NOT NULL, UNIQUE (source_id, session_id, seq));
            INSERT INTO session_descriptors (id, source_id, provider_id, started_at, ended_at, updated_at, descriptor_json)
                VALUES ('old', 'mac', 'claude', 100, 200, 300, '{"id":"old","sourceID":"mac","sourceName":"Mac",
                "provider":{"id":"claude","displayName":"Claude"},"title":"kept","messageCount":1,"promptCount":1,
                "tokenUsage":{"inputTokens":5}}'),
                ('ended', 'mac', 'claude', 100, 200, 0, '{}'), ('started', 'mac', 'claude', 100, NULL, 0, '{}');
            INSERT INTO session_messages (session_id, source_id, seq, role, inserted_at) VALUES ('old', 'mac', 0, 'user', 42);
        )"), "");
    }
    EXPECT_EQ(store.loadDescriptor("mac", "old")->title, "kept");
    EXPECT_EQ(column("SELECT id || ' ' || inserted_at || ' ' || descriptor_encoding FROM session_descriptors ORDER BY id"),
              (std::vector<std::string>{"ended 200.0 plain", "old 300.0 plain", "started 100.0 plain"}));
    EXPECT_EQ(column("SELECT updated_at FROM session_messages"), std::vector<std::string>{"42.0"});
    EXPECT_EQ(column("SELECT COUNT(*) FROM sqlite_master WHERE name IN ('idx_sm_updated', 'idx_sd_inserted')"),
              std::vector<std::string>{"2"});
    EXPECT_EQ(QuotaSessionCatalogIntegrityChecker{store}.run().anomaliesFound, 2);  // the two '{}' blobs
    store.upsert(session("new"), "mac");  // and it takes new rows
    EXPECT_EQ(store.totalCount("mac"), 4);
}

TEST_F(CatalogStore, SummaryAndRetention) {
    store.upsert(session("recent", testing::at("2026-11-20T00:00:00Z")), "mac");
    at("2026-11-21T11:00:00Z").upsert(session("old", testing::at("2026-10-01T00:00:00Z")), "mac");
    store.replaceMessagesForSession("mac", "old", {message(QuotaSessionRole::user, "", testing::at("2026-10-01T00:00:00Z")),
                                                   message(QuotaSessionRole::user, "", testing::at("2026-11-20T00:00:00Z"))});
    const auto summary = store.storageSummary("mac");
    EXPECT_EQ(summary.descriptorCount, 2);
    EXPECT_EQ(summary.messageCount, 2);
    EXPECT_EQ(summary.firstDescriptorInsertedAt, testing::at("2026-11-21T10:00:00Z"));
    EXPECT_EQ(summary.latestDescriptorUpdatedAt, testing::at("2026-11-21T11:00:00Z"));
    EXPECT_EQ(store.storageSummary("none"), (QuotaSessionCatalogStorageSummary{}));
    EXPECT_EQ(store.trimMessagesOlderThan(30), 1);
    EXPECT_EQ(store.trimDescriptorsOlderThan(30), 1);
    EXPECT_EQ(store.clearAll(), 2);
}

}  // namespace
}  // namespace gaugepoint
