#include <gtest/gtest.h>

#include <algorithm>

#include "PostgresServer.hpp"
#include "gaugepoint/notify/QuotaNotifyInboxStore.hpp"
#include "gaugepoint/pgsync/PostgresRecordZone.hpp"
#include "gaugepoint/pgsync/SameAccountSync.hpp"
#include "gaugepoint/platform/Uuid.hpp"
#include "gaugepoint/stores/QuotaSessionCatalogStore.hpp"
#include "gaugepoint/stores/QuotaSourceSnapshotStore.hpp"
#include "gaugepoint/sync/QuotaSameAccountSyncV2.hpp"
#include "gaugepoint/sync/QuotaSameAccountSyncV2RecordCodec.hpp"

namespace gaugepoint {
namespace {

using testing::at;

// One of the user's machines: its own App Group directory, defaults and source.
class Machine {
public:
    Machine(const std::string& source, const testing::PostgresServer& server) : server_(server) {
        configuration.appGroupDirectory = dir_ / "group";
        configuration.sourceID = source;
        configuration.sourceName = "Machine " + source;
    }

    SameAccountSync sync(std::function<void(std::string_view, std::int64_t)> progress = {}) const {
        SameAccountSyncOptions options;
        options.connectionString = server_.connectionString("alice");
        options.pushBatchSize = 50;
        options.pullPageSize = 40;
        options.retry.maxRetries = 1;
        options.retry.sleep = [](std::uint64_t) {};
        options.progress = std::move(progress);
        return SameAccountSync{configuration, options};
    }

    void publish(double usedPercent) const {
        QuotaSnapshot s;
        s.generatedAt = at("2026-11-21T12:00:00Z");
        s.source = QuotaSnapshotSource{*configuration.sourceID, *configuration.sourceName, "host", "Linux"};
        ProviderQuota p;
        p.id = "codex";
        p.displayName = "Codex";
        p.windows.push_back({"primary", "5h", usedPercent, at("2026-11-21T15:00:00Z"), 300, {}, 0,
                             QuotaWindowSemantic::rollingSession, {}});
        s.providers.push_back(p);
        QuotaSourceSnapshotStore{configuration}.upsert(s, std::nullopt, QuotaSourceSyncChannel::kvs);
    }

    static QuotaSessionDescriptor session(const std::string& id, std::int64_t tokens, Date updated) {
        QuotaSessionDescriptor d;
        d.id = id;
        d.provider = {"claude", "Claude"};
        d.title = "session " + id;
        d.startedAt = at("2026-11-20T10:00:00Z");
        d.endedAt = at("2026-11-20T11:00:00Z");
        d.transcriptUpdatedAt = updated;
        d.tokenUsage = {tokens, 1, 2, 3, std::nullopt};
        return d;
    }
    void addSessions(int count, const std::string& prefix) const {
        std::vector<QuotaSessionDescriptor> list;
        for (int i = 0; i < count; ++i) list.push_back(session(prefix + std::to_string(i), i, at("2026-11-20T11:00:00Z")));
        QuotaSessionCatalogStore{configuration}.upsertBatch(list, *configuration.sourceID);
    }
    void notify(const std::string& id) const {
        QuotaNotifyArchiveEntry e;
        e.envelopeID = id;
        e.threadID = "codex";
        e.createdAt = at("2026-11-21T12:00:00Z");
        e.archivedAt = at("2026-11-21T12:00:01Z");
        e.origin = "local";
        e.title = "Codex 5h at 80%";
        e.sourceID = configuration.sourceID;
        e.category = "quota";
        QuotaNotifyInboxStore{configuration}.upsert(e);
    }

    // Every descriptor as its JSON, in a stable order (readable when a comparison fails).
    std::vector<std::string> descriptors() const {
        std::vector<std::string> all;
        for (const auto& d : QuotaSessionCatalogStore{configuration}.loadAllDescriptors()) all.push_back(json::encode(d));
        std::sort(all.begin(), all.end());
        return all;
    }
    std::int64_t inputTokensOf(const std::string& source, const std::string& id) const {
        return QuotaSessionCatalogStore{configuration}.loadDescriptor(source, id)->tokenUsage.inputTokens;
    }
    std::map<std::string, QuotaSnapshot> snapshots() const {
        std::map<std::string, QuotaSnapshot> bySource;
        for (const auto& r : QuotaSourceSnapshotStore{configuration}.load().entries) bySource[r.id] = r.snapshot;
        return bySource;
    }
    std::set<std::string> inbox() const {
        std::set<std::string> ids;
        for (const auto& e : QuotaNotifyInboxStore{configuration}.loadAllEntries()) ids.insert(e.envelopeID);
        return ids;
    }

    QuotaSyncConfiguration configuration;

private:
    testing::ScratchDirectory dir_;
    const testing::PostgresServer& server_;
};

class SameAccountSyncTest : public ::testing::Test {
protected:
    SameAccountSyncTest() {
        auto admin = server.superuser();
        PostgresRecordZone::setup(admin);
    }
    testing::PostgresServer server;
    Machine laptop{"laptop", server}, workstation{"workstation", server};
};

TEST_F(SameAccountSyncTest, TwoMachinesConvergeAndAgainChangesNothing) {
    laptop.publish(20);
    laptop.addSessions(120, "l");
    laptop.notify("n-laptop");
    workstation.publish(70);
    workstation.addSessions(30, "w");
    workstation.notify("n-workstation");

    const auto pushed = laptop.sync().push();
    EXPECT_EQ(pushed.sourceRecords, 2);
    EXPECT_EQ(pushed.descriptors, 120);
    EXPECT_EQ(pushed.notifyEvents, 1);
    workstation.sync().push();
    const auto pulledByLaptop = laptop.sync().pull();
    EXPECT_EQ(pulledByLaptop.descriptors, 30);
    EXPECT_EQ(pulledByLaptop.skippedOwn, 2 + 120 + 1);
    workstation.sync().pull();

    // Both stores hold the same records, field by field.
    EXPECT_EQ(laptop.descriptors(), workstation.descriptors());
    EXPECT_EQ(laptop.descriptors().size(), 150u);
    EXPECT_EQ(laptop.snapshots(), workstation.snapshots());
    EXPECT_EQ(laptop.snapshots().size(), 2u);
    EXPECT_EQ(laptop.inbox(), (std::set<std::string>{"n-laptop", "n-workstation"}));
    EXPECT_EQ(laptop.inbox(), workstation.inbox());

    // Nothing changed: nothing moves either way; the pulled records are not echoed back.
    const auto again = laptop.sync().push();
    EXPECT_EQ(again.sourceRecords + again.descriptors + again.notifyEvents + again.deletions, 0);
    EXPECT_EQ(workstation.sync().pull().descriptors, 0);

    // A change and a deletion travel.
    laptop.publish(90);
    QuotaNotifyInboxStore{laptop.configuration}.deleteMessage("n-workstation");
    const auto changed = laptop.sync().push();
    EXPECT_EQ(changed.sourceRecords, 2);
    EXPECT_EQ(changed.deletions, 1);
    workstation.sync().pull();
    EXPECT_DOUBLE_EQ(workstation.snapshots().at("laptop").providers.at(0).windows.at(0).usedPercent, 90);
    EXPECT_EQ(workstation.inbox(), (std::set<std::string>{"n-laptop"}));

    const auto status = laptop.sync().status();
    EXPECT_EQ(status.server.rfind("alice@", 0), 0u);
    EXPECT_EQ(status.epoch, status.cloudEpoch);
    EXPECT_TRUE(status.lastPushAt && status.lastPullAt);
    EXPECT_EQ(status.serverRecords.at("GpSessionDescriptor"), 150);
}

TEST_F(SameAccountSyncTest, WhenAnotherWriterChangedARecordTheLaterUpdateWins) {
    laptop.addSessions(1, "s");
    laptop.sync().push();
    // Another writer (an older copy of this machine, say) rewrites the record with a later time.
    auto zone = PostgresRecordZone{std::make_shared<PostgresConnection>(PostgresConnection::open(server.connectionString("alice"))),
                                   std::string(QuotaSameAccountSyncV2::privateZoneName)};
    const auto epoch = QuotaSameAccountSyncV2::currentEpoch(*laptop.configuration.userDefaults)->epoch;
    auto theirs = Machine::session("s0", 777, at("2026-11-22T00:00:00Z"));
    theirs.sourceID = "laptop";
    const auto name = QuotaSameAccountSyncV2RecordCodec::makeSessionDescriptorRecord(theirs, epoch, false);
    const auto tag = zone.read(name.recordID.recordName)->changeTag;
    ASSERT_TRUE(zone.write({{name, tag}})[0].written);

    // Ours is older: the server keeps theirs.
    QuotaSessionCatalogStore{laptop.configuration}.upsert(Machine::session("s0", 5, at("2026-11-21T00:00:00Z")), "laptop");
    const auto lost = laptop.sync().push();
    EXPECT_EQ(lost.conflictsLost, 1);
    workstation.sync().pull();
    EXPECT_EQ(workstation.inputTokensOf("laptop", "s0"), 777);
    // Ours is newer: it replaces theirs.
    QuotaSessionCatalogStore{laptop.configuration}.upsert(Machine::session("s0", 6, at("2026-11-23T00:00:00Z")), "laptop");
    ASSERT_TRUE(zone.write({{name, zone.read(name.recordID.recordName)->changeTag}})[0].written);
    const auto won = laptop.sync().push();
    EXPECT_EQ(won.conflictsWon, 1);
    workstation.sync().pull();
    EXPECT_EQ(workstation.inputTokensOf("laptop", "s0"), 6);
}

TEST_F(SameAccountSyncTest, AfterADestructiveResetTheOldEpochsRecordsAreSkipped) {
    laptop.addSessions(10, "l");
    workstation.addSessions(5, "w");
    laptop.sync().push();
    workstation.sync().push();
    workstation.sync().pull();  // the laptop has not pulled the workstation's sessions yet

    // The laptop starts over: a new epoch, here and on the server; its records go up again.
    PostgresKeyValueStore keys{std::make_shared<PostgresConnection>(PostgresConnection::open(server.connectionString("alice")))};
    const auto reset = QuotaSameAccountSyncV2::markDestructiveReset(*laptop.configuration.userDefaults, &keys,
                                                                    at("2026-11-22T00:00:00Z"), Uuid::random());
    QuotaSessionCatalogStore{laptop.configuration}.clearDescriptors();
    laptop.addSessions(3, "fresh");
    const auto pushed = laptop.sync().push();
    EXPECT_EQ(pushed.epoch, reset.epoch);
    EXPECT_EQ(pushed.descriptors, 3);
    // What was pushed under the old epoch (the workstation's 5, the laptop's own 10) no longer counts.
    const auto stale = laptop.sync().pull();
    EXPECT_EQ(stale.skippedForeignEpoch, 15);
    EXPECT_EQ(stale.descriptors, 0);

    // The workstation adopts the new epoch, takes the new records, and pushes its own again.
    const auto pulled = workstation.sync().pull();
    EXPECT_EQ(pulled.epoch, reset.epoch);
    EXPECT_EQ(pulled.descriptors, 3);
    EXPECT_EQ(QuotaSameAccountSyncV2::currentEpoch(*workstation.configuration.userDefaults)->epoch, reset.epoch);
    EXPECT_EQ(workstation.sync().push().descriptors, 5);
    EXPECT_EQ(laptop.sync().pull().descriptors, 5);
    EXPECT_EQ(laptop.descriptors().size(), 8u);
}

TEST_F(SameAccountSyncTest, AServerKilledInTheMiddleLosesAndDuplicatesNothing) {
    laptop.addSessions(200, "l");
    bool killed = false;
    const auto killAfterFirstBatch = [&](std::string_view, std::int64_t) {
        if (!killed) {
            killed = true;
            server.kill();
        }
    };
    EXPECT_THROW(laptop.sync(killAfterFirstBatch).push(), PostgresError);
    server.start();
    const auto rest = laptop.sync().push();
    EXPECT_EQ(rest.descriptors, 150);  // the first batch of 50 had been committed and was not sent again
    auto admin = server.superuser();
    EXPECT_EQ(admin.execute("SELECT count(*), count(DISTINCT record_name) FROM gaugepoint.records "
                            "WHERE record_type = 'GpSessionDescriptor'")
                  .rows_.at(0),
              (std::vector<std::optional<std::string>>{"200", "200"}));

    killed = false;
    EXPECT_THROW(workstation.sync(killAfterFirstBatch).pull(), PostgresError);
    EXPECT_EQ(workstation.descriptors().size(), 40u);  // the first page, applied once
    server.start();
    const auto pulled = workstation.sync().pull();
    EXPECT_EQ(pulled.descriptors, 160);
    EXPECT_EQ(workstation.descriptors(), laptop.descriptors());
}

}  // namespace
}  // namespace gaugepoint
