#include "gaugepoint/pgsync/SameAccountSync.hpp"
#include "gaugepoint/Version.hpp"

#include <set>

#include "gaugepoint/notify/QuotaNotifyInboxStore.hpp"
#include "gaugepoint/pgsync/PostgresRecordZone.hpp"
#include "gaugepoint/pgsync/SyncStateStore.hpp"
#include "gaugepoint/platform/Sha256.hpp"
#include "gaugepoint/platform/Uuid.hpp"
#include "gaugepoint/stores/QuotaSessionCatalogStore.hpp"
#include "gaugepoint/stores/QuotaSourceSnapshotStore.hpp"
#include "gaugepoint/sync/QuotaSameAccountSyncV2.hpp"
#include "gaugepoint/sync/QuotaSameAccountSyncV2RecordCodec.hpp"

namespace gaugepoint {
namespace {

namespace Codec = QuotaSameAccountSyncV2RecordCodec;
namespace Type = QuotaSameAccountSyncV2::RecordType;

constexpr const char* kAppVersion = GAUGEPOINT_VERSION;
// How often one record is written again when other machines keep changing it in between.
constexpr int kConflictRounds = 3;

const char* deviceKind() {
#ifdef __APPLE__
    return "mac";
#else
    return "linux";
#endif
}

// When the record's content was last changed, for deciding between two machines' copies.
std::optional<Date> updateTime(const QuotaCloudRecord& record) {
    for (const auto key : {Codec::Field::updatedAt, Codec::Field::lastSeenAt, Codec::Field::createdAt}) {
        if (const Date* date = record.get<Date>(key)) return *date;
    }
    return std::nullopt;
}

bool isNewer(const QuotaCloudRecord& ours, const QuotaCloudRecord& theirs) {
    const auto a = updateTime(ours), b = updateTime(theirs);
    return a && (!b || *a > *b);
}

// An inbox row as the envelope that carries it to the other machines, and back.
QuotaNotifyEnvelope envelopeOf(const QuotaNotifyArchiveEntry& e, const QuotaSyncConfiguration& configuration) {
    QuotaNotifyEnvelope envelope;
    envelope.envelopeID = e.envelopeID;
    envelope.createdAt = e.createdAt;
    envelope.updatedAt = e.archivedAt;
    envelope.targetFamily = "all";
    envelope.title = e.title;
    envelope.body = e.body;
    envelope.sourceID = e.sourceID.value_or(configuration.localSourceID());
    envelope.deviceName = e.sourceName ? e.sourceName : std::optional(configuration.localSourceName());
    envelope.providerID = e.providerID;
    envelope.providerName = e.providerDisplayName;
    envelope.category = e.category;
    envelope.level = e.level.value_or("info");
    return envelope;
}

QuotaNotifyArchiveEntry entryOf(const QuotaNotifyEnvelope& envelope) {
    QuotaNotifyArchiveEntry e;
    e.envelopeID = envelope.envelopeID;
    e.threadID = envelope.providerID.value_or(envelope.category);
    e.createdAt = envelope.createdAt;
    e.archivedAt = envelope.updatedAt;
    e.origin = "sync";
    e.title = envelope.title;
    e.body = envelope.body;
    e.sourceID = envelope.sourceID;
    e.sourceName = envelope.deviceName;
    e.providerID = envelope.providerID;
    e.providerDisplayName = envelope.providerName;
    e.category = envelope.category;
    e.level = envelope.level;
    e.deliveredVia = {"postgres"};
    return e;
}

}  // namespace

// The connection, its zone and key-value store; made again after a lost connection.
class SameAccountSync::Link {
public:
    Link(const SameAccountSyncOptions& options) : options_(options) {}

    template <class Work>
    auto run(Work&& work) {
        return PostgresRetry::run(
            options_.retry,
            [&] {
                if (!connection_) connect();
                return work();
            },
            [&](const PostgresError& error) {
                if (error.isConnectionFailure()) reset();
            });
    }

    PostgresRecordZone& zone() { return *zone_; }
    PostgresKeyValueStore& keyValues() { return *keyValues_; }
    PostgresConnection& connection() { return *connection_; }
    const std::string& description() const { return description_; }
    // A short key of the server (role, host, port, database) for the local state.
    std::string key() const { return sha256Hex(description_).substr(0, 16); }

private:
    void connect() {
        connection_ = std::make_shared<PostgresConnection>(PostgresConnection::open(options_.connectionString));
        zone_ = std::make_unique<PostgresRecordZone>(connection_, std::string(QuotaSameAccountSyncV2::privateZoneName));
        keyValues_ = std::make_unique<PostgresKeyValueStore>(connection_);
        description_ = connection_->description();
    }
    void reset() {
        zone_.reset();
        keyValues_.reset();
        connection_.reset();
    }

    const SameAccountSyncOptions& options_;
    std::shared_ptr<PostgresConnection> connection_;
    std::unique_ptr<PostgresRecordZone> zone_;
    std::unique_ptr<PostgresKeyValueStore> keyValues_;
    std::string description_;
};

namespace {

// The epoch in force, agreed with the server's key-value store.
std::string reconciledEpoch(SameAccountSync::Link& link, const QuotaSyncConfiguration& configuration) {
    return link.run([&] {
        const auto state = QuotaSameAccountSyncV2::ensureBootstrapped(*configuration.userDefaults, &link.keyValues(),
                                                                      configuration.clock.now(), Uuid::random());
        if (state.cloudMirrorSynchronized == false) {
            throw PostgresError("08006", "cannot write the sync epoch to the server");
        }
        return state.epoch;
    });
}

// One push: writes batches and keeps the local state in step with what the server committed.
class Pusher {
public:
    Pusher(SameAccountSync::Link& link, const SyncStateStore& states, SyncServerState& state, SyncPushSummary& summary,
           const SameAccountSyncOptions& options)
        : link_(link), states_(states), state_(state), summary_(summary), options_(options) {}

    // Writes `records` (distinct names) until the server holds them or a newer copy of each;
    // then saves the state with `change`.
    void commit(const std::vector<QuotaCloudRecord>& records, SyncStateStore::Change change) {
        std::vector<std::string> names;
        for (const auto& r : records) names.push_back(r.recordID.recordName);
        const auto seen = states_.tags(state_.key, names);
        std::vector<PostgresZoneWrite> pending;
        for (const auto& r : records) {
            const auto tag = seen.find(r.recordID.recordName);
            pending.push_back({r, tag == seen.end() ? std::nullopt : std::optional(tag->second)});
        }
        for (int round = 0; !pending.empty(); ++round) {
            const auto outcomes = link_.run([&] { return link_.zone().write(pending); });
            std::vector<PostgresZoneWrite> again;
            for (std::size_t i = 0; i < outcomes.size(); ++i) {
                const auto& outcome = outcomes[i];
                if (outcome.written) {
                    change.tags.emplace_back(outcome.recordName, outcome.changeTag);
                } else if (!outcome.current) {
                    again.push_back({pending[i].record, std::nullopt});  // deleted meanwhile: write it anew
                } else if (round < kConflictRounds && isNewer(pending[i].record, outcome.current->record)) {
                    again.push_back({pending[i].record, outcome.current->changeTag});
                    ++summary_.conflictsWon;
                } else {
                    change.tags.emplace_back(outcome.recordName, outcome.current->changeTag);
                    ++summary_.conflictsLost;
                }
            }
            pending = std::move(again);
        }
        state_.recordsPushed += std::int64_t(records.size());
        states_.save(state_, change);
        pushed_ += std::int64_t(records.size());
        if (options_.progress) options_.progress("push", pushed_);
    }

private:
    SameAccountSync::Link& link_;
    const SyncStateStore& states_;
    SyncServerState& state_;
    SyncPushSummary& summary_;
    const SameAccountSyncOptions& options_;
    std::int64_t pushed_ = 0;
};

void pushSource(Pusher& pusher, SyncServerState& state, const QuotaSyncConfiguration& configuration,
                const std::string& epoch, SyncPushSummary& summary) {
    const auto record = QuotaSourceSnapshotStore{configuration}.loadRecord(configuration.localSourceID());
    if (!record) return;
    const std::string fingerprint = sha256Hex(json::encode(*record));
    if (fingerprint == state.pushedSnapshotFingerprint) return;
    std::vector<QuotaCloudRecord> records;
    if (auto device = Codec::makeSourceDeviceRecord(record->snapshot, epoch, kAppVersion, deviceKind(), false)) {
        records.push_back(std::move(*device));
    }
    records.push_back(Codec::makeHotSnapshotRecord(*record, epoch));
    state.pushedSnapshotFingerprint = fingerprint;
    pusher.commit(records, {});
    summary.sourceRecords += std::int64_t(records.size());
}

void pushDescriptors(Pusher& pusher, const SyncServerState& state, const QuotaSyncConfiguration& configuration,
                     const std::string& epoch, std::int64_t batch, SyncPushSummary& summary) {
    const QuotaSessionCatalogStore catalog{configuration};
    const std::string device = SameAccountSync::deviceKey(state.key);
    const std::string local = configuration.localSourceID();
    for (;;) {
        const auto page = catalog.exportIncrementalDescriptors(device, batch);
        if (page.descriptors.empty()) return;
        std::vector<QuotaCloudRecord> records;
        for (const auto& d : page.descriptors) {
            // Descriptors pulled from the other machines are theirs to push.
            if (d.sourceID == local) records.push_back(Codec::makeSessionDescriptorRecord(d, epoch, false));
        }
        if (!records.empty()) pusher.commit(records, {});
        catalog.updateWatermark(device, QuotaSessionCatalogStore::descriptorsTable, page.watermark);
        summary.descriptors += std::int64_t(records.size());
    }
}

void pushNotifyEvents(Pusher& pusher, const SyncStateStore& states, const SyncServerState& state,
                      const QuotaSyncConfiguration& configuration, const std::string& epoch, std::int64_t batch,
                      SyncPushSummary& summary) {
    const auto known = states.knownEnvelopes(state.key);
    std::set<std::string> present;
    std::vector<QuotaCloudRecord> records;
    SyncStateStore::Change change;
    const auto flush = [&] {
        if (records.empty()) return;
        pusher.commit(records, std::move(change));
        records.clear();
        change = {};
    };
    for (const auto& entry : QuotaNotifyInboxStore{configuration}.loadAllEntries()) {
        present.insert(entry.envelopeID);
        if (known.count(entry.envelopeID) || entry.envelopeID.find_first_not_of(" \t\r\n") == std::string::npos) continue;
        records.push_back(Codec::makeNotifyEventRecord(envelopeOf(entry, configuration), epoch, false));
        change.envelopesKnown.emplace_back(entry.envelopeID, entry.createdAt);
        ++summary.notifyEvents;
        if (std::int64_t(records.size()) >= batch) flush();
    }
    for (const auto& [id, createdAt] : known) {
        if (present.count(id)) continue;
        records.push_back(Codec::makeNotifyEventTombstoneRecord(id, epoch, createdAt, configuration.clock.now()));
        change.envelopesGone.push_back(id);
        ++summary.deletions;
        if (std::int64_t(records.size()) >= batch) flush();
    }
    flush();
}

// What one page of pulled records does to the local stores, gathered before any is touched.
struct PulledPage {
    std::vector<QuotaSnapshot> snapshots;
    std::vector<std::string> removedSources;
    std::map<std::string, std::vector<QuotaSessionDescriptor>> descriptors;  // by source
    std::vector<QuotaSessionDescriptorKey> removedDescriptors;
    std::vector<QuotaNotifyArchiveEntry> entries;
    std::vector<std::string> removedEntries;
    SyncStateStore::Change change;

    // Opens only the stores the page touches: a timer's pull of one change stays quick.
    void apply(const QuotaSyncConfiguration& configuration) const {
        if (!snapshots.empty() || !removedSources.empty()) {
            const QuotaSourceSnapshotStore sources{configuration};
            for (const auto& snapshot : snapshots) sources.upsert(snapshot, std::nullopt, QuotaSourceSyncChannel::kvs);
            for (const auto& source : removedSources) sources.removeRecordsWithSourceID(source);
        }
        if (!descriptors.empty() || !removedDescriptors.empty()) {
            const QuotaSessionCatalogStore catalog{configuration};
            for (const auto& [source, list] : descriptors) catalog.upsertBatch(list, source);
            if (!removedDescriptors.empty()) catalog.removeDescriptors(removedDescriptors);
        }
        if (!entries.empty() || !removedEntries.empty()) {
            const QuotaNotifyInboxStore inbox{configuration};
            if (!entries.empty()) inbox.upsert(entries);
            if (!removedEntries.empty()) inbox.deleteMessages(removedEntries);
        }
    }
};

// Sorts one record into the page; false when it was passed over.
void take(const PostgresZoneRecord& pulled, const std::string& epoch, const std::string& local, PulledPage& page,
          SyncPullSummary& summary) {
    const QuotaCloudRecord& r = pulled.record;
    const std::string* recordEpoch = r.get<std::string>(Codec::Field::syncEpoch);
    if (!recordEpoch || *recordEpoch != epoch) {
        ++summary.skippedForeignEpoch;
        return;
    }
    const bool deletion = Codec::isTombstone(r);
    const auto own = [&](std::string_view source) {
        if (source != local) return false;
        ++summary.skippedOwn;
        return true;
    };
    try {
        if (r.recordType == Type::snapshotHot) {
            auto decoded = Codec::decodeHotSnapshot(r);
            if (own(decoded.record.sourceID.value_or(decoded.record.id))) return;
            page.snapshots.push_back(std::move(decoded.record.snapshot));
            ++summary.snapshots;
        } else if (r.recordType == Type::sourceDevice) {
            const auto device = Codec::decodeSourceDevice(r);
            if (own(device.sourceID)) return;
            if (device.isTombstoned) page.removedSources.push_back(device.sourceID);
            ++summary.devices;
        } else if (r.recordType == Type::sessionDescriptor && deletion) {
            const auto ids = Codec::parseRowID(Codec::decodeSessionDescriptorTombstoneRowID(r));
            if (!ids || own(ids->first)) return;
            page.removedDescriptors.push_back({ids->first, ids->second});
            ++summary.deletions;
        } else if (r.recordType == Type::sessionDescriptor) {
            auto decoded = Codec::decodeSessionDescriptor(r);
            if (own(decoded.descriptor.sourceID)) return;
            page.descriptors[decoded.descriptor.sourceID].push_back(std::move(decoded.descriptor));
            ++summary.descriptors;
        } else if (r.recordType == Type::notifyEvent && deletion) {
            const std::string id = Codec::decodeNotifyEventTombstoneEnvelopeID(r);
            page.removedEntries.push_back(id);
            page.change.envelopesGone.push_back(id);
            ++summary.deletions;
        } else if (r.recordType == Type::notifyEvent) {
            const auto decoded = Codec::decodeNotifyEvent(r);
            page.change.envelopesKnown.emplace_back(decoded.envelope.envelopeID, decoded.envelope.createdAt);
            if (own(decoded.envelope.sourceID)) return;
            page.entries.push_back(entryOf(decoded.envelope));
            ++summary.notifyEvents;
        } else {
            ++summary.skippedOther;
        }
    } catch (const Error&) {
        ++summary.undecodable;
    }
}

}  // namespace

SameAccountSync::SameAccountSync(QuotaSyncConfiguration configuration, SameAccountSyncOptions options)
    : configuration_(std::move(configuration)), options_(std::move(options)) {}

std::string SameAccountSync::deviceKey(std::string_view serverKey) { return "postgres:" + std::string(serverKey); }

std::string SameAccountSync::setup() const {
    Link link{options_};
    link.run([&] { PostgresRecordZone::setup(link.connection()); });
    return link.description();
}

namespace {

// What a push and a pull start from: the epoch agreed with the server, and this machine's state
// of that server.
struct Opened {
    std::string epoch;
    SyncStateStore states;
    SyncServerState state;
};

Opened open(SameAccountSync::Link& link, const QuotaSyncConfiguration& configuration) {
    Opened opened{reconciledEpoch(link, configuration), SyncStateStore{configuration}, {}};
    opened.state = opened.states.server(link.key());
    opened.state.description = link.description();
    return opened;
}

}  // namespace

SyncPushSummary SameAccountSync::push() const {
    Link link{options_};
    Opened opened = open(link, configuration_);  // named members: lambdas below capture them
    const std::string& epoch = opened.epoch;
    const SyncStateStore& states = opened.states;
    SyncServerState& state = opened.state;
    SyncPushSummary summary;
    summary.epoch = epoch;
    if (state.pushedEpoch != summary.epoch) {
        // A new epoch: everything this machine has is pushed again under it.
        QuotaSessionCatalogStore{configuration_}.updateWatermark(deviceKey(state.key),
                                                                 QuotaSessionCatalogStore::descriptorsTable, {});
        state.pushedSnapshotFingerprint.clear();
        state.pushedEpoch = summary.epoch;
        SyncStateStore::Change forget;
        forget.forgetEnvelopes = true;
        states.save(state, forget);
    }
    Pusher pusher{link, states, state, summary, options_};
    pushSource(pusher, state, configuration_, summary.epoch, summary);
    pushDescriptors(pusher, state, configuration_, summary.epoch, options_.pushBatchSize, summary);
    pushNotifyEvents(pusher, states, state, configuration_, summary.epoch, options_.pushBatchSize, summary);
    state.lastPushAt = configuration_.clock.now();
    states.save(state);
    summary.server = link.description();
    return summary;
}

SyncPullSummary SameAccountSync::pull() const {
    Link link{options_};
    Opened opened = open(link, configuration_);  // named members: lambdas below capture them
    const std::string& epoch = opened.epoch;
    const SyncStateStore& states = opened.states;
    SyncServerState& state = opened.state;
    SyncPullSummary summary;
    summary.epoch = epoch;
    const std::string local = configuration_.localSourceID();
    std::int64_t pulled = 0;
    for (;;) {
        const auto records = link.run([&] { return link.zone().changesAfter(state.pulledThrough, options_.pullPageSize); });
        if (records.empty()) break;
        PulledPage page;
        const std::int64_t skippedBefore = summary.skippedForeignEpoch;
        for (const auto& record : records) {
            page.change.tags.emplace_back(record.record.recordID.recordName, record.changeTag);
            take(record, summary.epoch, local, page, summary);
        }
        page.apply(configuration_);
        state.pulledThrough = records.back().changeSequence;
        state.recordsPulled += std::int64_t(records.size());
        state.skippedForeignEpoch += summary.skippedForeignEpoch - skippedBefore;
        states.save(state, page.change);
        pulled += std::int64_t(records.size());
        if (options_.progress) options_.progress("pull", pulled);
    }
    state.lastPullAt = configuration_.clock.now();
    states.save(state);
    summary.pulledThrough = state.pulledThrough;
    summary.server = link.description();
    return summary;
}

SyncStatusReport SameAccountSync::status() const {
    Link link{options_};
    SyncStatusReport report;
    link.run([&] {
        report.serverRecords = link.zone().countsByType();
        report.latestChange = link.zone().latestChangeSequence();
        report.cloudEpoch = QuotaSameAccountSyncV2::cloudEpoch(link.keyValues());
    });
    report.server = link.description();
    if (const auto local = QuotaSameAccountSyncV2::currentEpoch(*configuration_.userDefaults)) report.epoch = local->epoch;
    const auto state = SyncStateStore{configuration_}.server(link.key());
    report.lastPushAt = state.lastPushAt;
    report.lastPullAt = state.lastPullAt;
    report.pulledThrough = state.pulledThrough;
    report.recordsPushed = state.recordsPushed;
    report.recordsPulled = state.recordsPulled;
    report.skippedForeignEpoch = state.skippedForeignEpoch;
    return report;
}

}  // namespace gaugepoint
