// gaugepoint sync: same-account sync records, the sync epoch and the cloud retry policy.

#include <charconv>

#include "Commands.hpp"
#include "SyncServer.hpp"
#include "gaugepoint/pgsync/PostgresRecordZone.hpp"
#include "gaugepoint/platform/Uuid.hpp"
#include "gaugepoint/sync/QuotaCloudKitRetryPolicy.hpp"
#include "gaugepoint/sync/QuotaSameAccountSyncV2.hpp"
#include "gaugepoint/sync/QuotaSameAccountSyncV2RecordCodec.hpp"
#include "gaugepoint/sync/QuotaSyncConstants.hpp"

namespace gaugepoint::cli {
namespace {

namespace Codec = QuotaSameAccountSyncV2RecordCodec;
namespace V2 = QuotaSameAccountSyncV2;

// The record kinds as the command line names them, with their record types.
const std::vector<std::pair<std::string, std::string_view>> kKinds{
    {"source", V2::RecordType::sourceDevice},
    {"snapshot-hot", V2::RecordType::snapshotHot},
    {"session", V2::RecordType::sessionDescriptor},
    {"transcript", V2::RecordType::transcriptBundle},
    {"notify", V2::RecordType::notifyEvent},
};

// A whole number that fits a T, checked before conversion so that "-5" or a number past 64 bits
// cannot wrap around or saturate into a different value.
template <class T>
CLI::Validator wholeNumber(std::string what) {
    return CLI::Validator(
        [what](std::string& text) {
            T value = 0;
            const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
            const bool whole = !text.empty() && error == std::errc() && end == text.data() + text.size();
            return whole ? std::string() : "expected " + what + ", got " + text;
        },
        "", what);
}
const CLI::Validator kMilliseconds = wholeNumber<std::uint64_t>("a whole number of milliseconds below 2^64");
const CLI::Validator kInteger = wholeNumber<std::int64_t>("a signed 64-bit integer");

std::vector<std::string> kindNames() {
    std::vector<std::string> names;
    for (const auto& kind : kKinds) names.push_back(kind.first);
    return names;
}

struct SyncOptions {
    std::string kind;
    std::vector<std::string> ids;
    std::string file;
    std::string epoch;
    bool reset = false;
    std::int64_t code = 0;
    std::int64_t attempt = 0;
    std::optional<double> retryAfter;
    std::uint64_t baseMillis = QuotaSyncConstants::NotifyBackfill::baseBackoffMillis;
    std::uint64_t capMillis = QuotaSyncConstants::NotifyBackfill::maxBackoffMillis;
};

// Every document this group reads comes through here.
template <class T>
T readSyncDocument(const std::string& path) {
    return readDocument<T>(path, InputLimit::document("a sync document"));
}

void recordName(const SyncOptions& options, const GlobalOptions& globals) {
    const bool pair = options.kind == "session" || options.kind == "transcript";
    const std::size_t expected = pair ? 2 : 1;
    if (options.ids.size() != expected) {
        throw UsageError("sync record-name --type " + options.kind + " takes " +
                         (pair ? "two identifiers: SOURCE-ID SESSION-ID" : "one identifier"));
    }
    const auto& ids = options.ids;
    const QuotaCloudRecordID id = options.kind == "source"         ? Codec::sourceDeviceRecordID(ids[0])
                                  : options.kind == "snapshot-hot" ? Codec::hotSnapshotRecordID(ids[0])
                                  : options.kind == "session"      ? Codec::sessionDescriptorRecordID(ids[0], ids[1])
                                  : options.kind == "transcript"   ? Codec::transcriptBundleRecordID(ids[0], ids[1])
                                                                   : Codec::notifyEventRecordID(ids[0]);
    if (!globals.json) return writeOutput("-", id.recordName + "\n");
    json::JsonWriter w;
    w.beginObject();
    json::writeMember(w, "recordName", id.recordName);
    json::writeMember(w, "zoneName", id.zoneID.zoneName);
    json::writeMember(w, "ownerName", id.zoneID.ownerName);
    w.endObject();
    writeOutput("-", w.take() + "\n");
}

void encode(const std::string& kind, const SyncOptions& options) {
    if (options.epoch.empty()) throw UsageError("--epoch must not be empty");
    QuotaCloudRecord record;
    if (kind == "snapshot-hot") {
        record = Codec::makeHotSnapshotRecord(readSyncDocument<QuotaSourceSnapshotRecord>(options.file), options.epoch);
    } else if (kind == "session") {
        record = Codec::makeSessionDescriptorRecord(readSyncDocument<QuotaSessionDescriptor>(options.file),
                                                    options.epoch, false);
    } else if (kind == "transcript") {
        record = Codec::makeTranscriptBundleRecord(readSyncDocument<QuotaSessionTranscriptBundle>(options.file),
                                                   options.epoch, false);
    } else {
        record = Codec::makeNotifyEventRecord(readSyncDocument<QuotaNotifyEnvelope>(options.file), options.epoch, false);
    }
    printJson(record);
}

// {"isTombstoned": true, "<key>": id}: what a deletion record names.
void printDeletion(std::string_view key, const std::string& id) {
    json::JsonWriter w{true};
    w.beginObject();
    json::writeMember(w, "isTombstoned", true);
    json::writeMember(w, key, id);
    w.endObject();
    writeOutput("-", w.take() + "\n");
}

// The command-line kind of a record type; none for a type that has no decoder.
std::optional<std::string> kindOfRecordType(std::string_view type) {
    for (const auto& [kind, recordType] : kKinds) {
        if (recordType == type) return kind;
    }
    return std::nullopt;
}

void decode(const SyncOptions& options) {
    const auto record = readSyncDocument<QuotaCloudRecord>(options.file);
    std::string kind = options.kind;
    if (kind.empty()) {
        const auto known = kindOfRecordType(record.recordType);
        if (!known) {
            throw Error("no decoder for record type \"" + record.recordType + "\" (give --type to choose one)");
        }
        kind = *known;
    }
    const bool deletion = Codec::isTombstone(record);
    if (kind == "source") return printJson(Codec::decodeSourceDevice(record));
    if (kind == "snapshot-hot") return printJson(Codec::decodeHotSnapshot(record).record);
    if (kind == "session") {
        if (deletion) return printDeletion("rowID", Codec::decodeSessionDescriptorTombstoneRowID(record));
        return printJson(Codec::decodeSessionDescriptor(record).descriptor);
    }
    if (kind == "transcript") {
        if (deletion) return printDeletion("rowID", Codec::decodeTranscriptBundleTombstoneRowID(record));
        return printJson(Codec::decodeTranscriptBundle(record).bundle);
    }
    if (deletion) return printDeletion("envelopeID", Codec::decodeNotifyEventTombstoneEnvelopeID(record));
    printJson(Codec::decodeNotifyEvent(record).envelope);
}

std::string synchronizedText(const std::optional<bool>& flag) {
    return flag.value_or(false) ? "synchronized" : "not synchronized";
}

// The key-value store the machines share: the sync server's when sync is on, else the stand-in
// file in the App Group directory.
std::shared_ptr<UbiquitousKeyValueStore> sharedKeyValues(const QuotaSyncConfiguration& configuration,
                                                         const GlobalOptions& globals) {
    if (const auto url = resolveSyncURL("", globals)) {
        return std::make_shared<PostgresKeyValueStore>(std::make_shared<PostgresConnection>(PostgresConnection::open(*url)));
    }
    auto cloud = configuration.resolvedUbiquitousKeyValueStore();
    if (!cloud) throw Error("The App Group container is unavailable: " + configuration.appGroupIdentifier + ".");
    return cloud;
}

void epoch(const SyncOptions& options, const GlobalOptions& globals) {
    const QuotaSyncConfiguration configuration = resolveConfiguration(globals);
    const auto cloud = sharedKeyValues(configuration, globals);
    const Date now = configuration.clock.now();
    auto& defaults = *configuration.userDefaults;
    const auto state = options.reset ? V2::markDestructiveReset(defaults, cloud.get(), now, Uuid::random())
                                     : V2::ensureBootstrapped(defaults, cloud.get(), now, Uuid::random());
    if (!state.localDefaultsSynchronized.value_or(false)) throw Error("cannot keep the sync epoch in the user defaults");
    if (!state.cloudMirrorSynchronized.value_or(false)) throw Error("cannot keep the sync epoch in the cloud key-value store");
    if (globals.json) return printJson(state);
    writeOutput("-", alignedRows({
                         {"epoch", state.epoch},
                         {"schema version", std::to_string(state.schemaVersion)},
                         {"reset at", timeText(state.resetAt)},
                         {"user defaults", synchronizedText(state.localDefaultsSynchronized)},
                         {"cloud store", synchronizedText(state.cloudMirrorSynchronized)},
                     }));
}

void retry(const SyncOptions& options, const GlobalOptions& globals) {
    const bool again = QuotaCloudKitRetryPolicy::shouldRetry(options.code);
    const std::uint64_t delay = QuotaCloudKitRetryPolicy::retryDelayMillis({options.code, options.retryAfter},
                                                                           options.attempt, options.baseMillis,
                                                                           options.capMillis);
    if (!globals.json) {
        return writeOutput("-", alignedRows({{"retry", again ? "yes" : "no"}, {"delay", std::to_string(delay) + " ms"}}));
    }
    // Written by hand: the delay is unsigned 64-bit, which the JSON writer's integers are not.
    writeOutput("-", std::string("{\"shouldRetry\":") + (again ? "true" : "false") +
                         ",\"delayMillis\":" + std::to_string(delay) + "}\n");
}

}  // namespace

void registerSyncCommand(CLI::App& root, GlobalOptions& globals) {
    auto options = std::make_shared<SyncOptions>();
    CLI::App* group = addGroup(root, "sync", "Same-account sync through PostgreSQL, its records, epoch and retry policy");
    group->require_subcommand(1);

    CLI::App* name = addGroup(*group, "record-name", "Print the cloud record name of a source, session or notification");
    name->add_option("--type", options->kind, "source, snapshot-hot, session, transcript or notify")
        ->required()
        ->check(Values::oneOf(kindNames()))
        ->option_text("KIND");
    name->add_option("ids", options->ids, "The identifiers: SOURCE-ID, SOURCE-ID SESSION-ID, or ENVELOPE-ID")
        ->required();
    name->callback([options, &globals] { recordName(*options, globals); });

    CLI::App* encodeGroup = addGroup(*group, "encode", "Build the cloud record of a document and print its JSON form");
    encodeGroup->require_subcommand(1);
    const std::vector<std::pair<std::string, std::string>> encoders{
        {"snapshot-hot", "a source snapshot record"},
        {"session", "a session descriptor"},
        {"transcript", "a session transcript bundle"},
        {"notify", "a notify envelope"},
    };
    for (const auto& [kind, document] : encoders) {
        CLI::App* verb = addGroup(*encodeGroup, kind, "The record of " + document + " (FILE, - for standard input)");
        verb->add_option("file", options->file, "The JSON document")->required();
        verb->add_option("--epoch", options->epoch, "The sync epoch the record is written under")
            ->required()
            ->option_text("EPOCH");
        verb->callback([options, kind = kind] { encode(kind, *options); });
    }

    CLI::App* decodeVerb = addGroup(*group, "decode", "Decode a record's JSON form and print the value it carries");
    decodeVerb->add_option("file", options->file, "The record's JSON form (- for standard input)")->required();
    decodeVerb->add_option("--type", options->kind, "Decode as this kind instead of by the record type")
        ->check(Values::oneOf(kindNames()))
        ->option_text("KIND");
    decodeVerb->callback([options] { decode(*options); });

    CLI::App* epochVerb = addGroup(*group, "epoch", "Show the sync epoch, starting one when there is none");
    epochVerb->add_flag("--reset", options->reset, "Start a new epoch: every machine drops records of the old one");
    epochVerb->callback([options, &globals] { epoch(*options, globals); });

    CLI::App* retryVerb = addGroup(*group, "retry", "Whether a failed cloud operation is retried, and after how long");
    retryVerb->add_option("--code", options->code, "The cloud error code")->required()->check(kInteger)->option_text("N");
    retryVerb->add_option("--attempt", options->attempt, "The retry about to be made (1 is the first)")
        ->required()
        ->check(kInteger)
        ->option_text("K");
    retryVerb->add_option("--retry-after", options->retryAfter, "The wait the server asked for, in seconds")
        ->option_text("SECONDS");
    retryVerb->add_option("--base", options->baseMillis,
                          "First back-off in milliseconds (default " + std::to_string(options->baseMillis) + ")")
        ->check(kMilliseconds)
        ->option_text("MS");
    retryVerb->add_option("--cap", options->capMillis,
                          "Back-off ceiling in milliseconds (default " + std::to_string(options->capMillis) + ")")
        ->check(kMilliseconds)
        ->option_text("MS");
    retryVerb->callback([options, &globals] { retry(*options, globals); });

    registerSyncServerCommands(*group, globals);
}

}  // namespace gaugepoint::cli
