// gaugepoint sources: the latest snapshot of every publishing source.

#include "Commands.hpp"
#include "SnapshotOutput.hpp"
#include "gaugepoint/platform/Text.hpp"
#include "gaugepoint/stores/QuotaSourceSnapshotStore.hpp"

namespace gaugepoint::cli {
namespace {

struct SourcesOptions {
    SnapshotInput input;
    std::optional<std::string> pairingToken;
    std::string channel = "kvs";
    std::string id;
    std::string sourceID;
    double olderThanSeconds = 0;
};

QuotaSourceSnapshotStore openStore(const GlobalOptions& globals) {
    return QuotaSourceSnapshotStore{resolveConfiguration(globals)};
}

void upsert(const SourcesOptions& options, const GlobalOptions& globals) {
    const QuotaSnapshot snapshot = options.input.read("sources upsert");
    const auto channel = options.channel == "pairing" ? QuotaSourceSyncChannel::pairing : QuotaSourceSyncChannel::kvs;
    const auto record = openStore(globals).upsert(snapshot, options.pairingToken, channel);
    if (globals.json) return printJson(record);
    writeOutput("-", "stored " + singleLine(record.id) + " (" + singleLine(record.sourceName) + ") received by " +
                         std::string(json::rawValue(record.channel)) + "\n");
}

void list(const GlobalOptions& globals) {
    const auto store = openStore(globals);
    store.databaseURL();  // a missing container is an error, not an empty list
    const auto registry = store.load();
    if (globals.json) return printJson(registry);
    std::vector<std::vector<std::string>> rows;
    const std::string language = resolveLanguage(globals);
    for (const auto& record : registry.entries) {
        rows.push_back({record.id, record.sourceName, std::string(json::rawValue(record.channel)),
                        timeText(record.receivedAt), snapshotSummary(record.snapshot, language)});
    }
    writeOutput("-", alignedRows(rows) + counted(std::int64_t(registry.entries.size()), "source") + "\n");
}

void show(const SourcesOptions& options, const GlobalOptions& globals) {
    const auto record = openStore(globals).loadRecord(options.id);
    if (!record) throw Error("no source snapshot record \"" + options.id + "\"");
    if (globals.json) return printJson(*record);
    std::string header = record->id + " · " + record->sourceName;
    if (record->platformLabel) header += " · " + *record->platformLabel;
    header += " · received " + timeText(record->receivedAt) + " by " + std::string(json::rawValue(record->channel));
    writeOutput("-", singleLine(header) + "\n");
    printWidget(record->snapshot, "text", globals);
}

void remove(const SourcesOptions& options, const GlobalOptions& globals) {
    const int given = int(!options.id.empty()) + int(!options.sourceID.empty()) + int(options.pairingToken.has_value());
    if (given != 1) throw UsageError("sources remove needs exactly one of ID, --source-id ID or --pairing-token T");
    const auto store = openStore(globals);
    const std::int64_t removed = !options.id.empty()         ? store.remove(options.id)
                                 : !options.sourceID.empty() ? store.removeRecordsWithSourceID(options.sourceID)
                                                             : store.removeRecordsWithPairingToken(*options.pairingToken);
    printRemovedCount(removed, "record", globals);
}

}  // namespace

void registerSourcesCommand(CLI::App& root, GlobalOptions& globals) {
    auto options = std::make_shared<SourcesOptions>();
    CLI::App* group = addGroup(root, "sources", "The latest snapshot of every publishing source");
    group->require_subcommand(1);

    CLI::App* add = addGroup(*group, "upsert", "Store a snapshot as the newest record of its source");
    options->input.addOptions(*add);
    add->add_option("--pairing-token", options->pairingToken, "The pairing token it arrived with")->option_text("T");
    add->add_option("--channel", options->channel, "kvs (default) or pairing")
        ->check(Values::oneOf({"kvs", "pairing"}))
        ->option_text("CHANNEL");
    add->callback([options, &globals] { upsert(*options, globals); });

    addGroup(*group, "list", "Show every source's record, newest first")->callback([&globals] { list(globals); });

    CLI::App* showCommand = addGroup(*group, "show", "Show one record");
    showCommand->add_option("id", options->id, "The record id")->required();
    showCommand->callback([options, &globals] { show(*options, globals); });

    CLI::App* removeCommand = addGroup(*group, "remove", "Delete records by id, source id or pairing token");
    removeCommand->add_option("id", options->id, "The record id");
    removeCommand->add_option("--source-id", options->sourceID, "Every record of this source")->option_text("ID");
    removeCommand->add_option("--pairing-token", options->pairingToken, "Every record with this token")->option_text("T");
    removeCommand->callback([options, &globals] { remove(*options, globals); });

    CLI::App* trim = addGroup(*group, "trim", "Delete old records, keeping the newest of every source");
    trim->add_option("--older-than", options->olderThanSeconds, "Age in seconds")
        ->option_text("SECONDS")->required()->check(Values::number(0, "86400"));
    trim->callback([options, &globals] {
        printRemovedCount(openStore(globals).trimOldEntries(options->olderThanSeconds), "record", globals);
    });

    addGroup(*group, "clear", "Delete every record")->callback([&globals] {
        printRemovedCount(openStore(globals).clear(), "record", globals);
    });
}

}  // namespace gaugepoint::cli
