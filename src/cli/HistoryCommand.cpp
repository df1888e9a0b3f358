// gaugepoint history: the snapshot timeline in quota-history.sqlite.

#include "Commands.hpp"
#include "SnapshotOutput.hpp"
#include "gaugepoint/platform/Text.hpp"
#include "gaugepoint/stores/QuotaHistoryStore.hpp"

namespace gaugepoint::cli {
namespace {

struct HistoryOptions {
    SnapshotInput input;
    double retentionDays = 30;
    std::optional<double> days;
    std::string sourceID;
};

QuotaHistoryStore openStore(const GlobalOptions& globals) { return QuotaHistoryStore{resolveConfiguration(globals)}; }

std::string sourceLabel(const QuotaSnapshot& snapshot) {
    if (!snapshot.source) return "unknown";
    return singleLine(snapshot.source->sourceID + " (" + snapshot.source->sourceName + ")");
}

void printTimeline(const QuotaHistoryTimeline& timeline, const GlobalOptions& globals) {
    if (globals.json) return printJson(timeline);
    std::vector<std::vector<std::string>> rows;
    const std::string language = resolveLanguage(globals);
    for (const auto& snapshot : timeline.snapshots) {
        rows.push_back({timeText(snapshot.generatedAt), sourceLabel(snapshot), snapshotSummary(snapshot, language)});
    }
    writeOutput("-", alignedRows(rows) + counted(std::int64_t(timeline.snapshots.size()), "snapshot") + "\n");
}

void append(const HistoryOptions& options, const GlobalOptions& globals) {
    const QuotaSnapshot snapshot = options.input.read("history append");
    const QuotaHistoryTimeline timeline = openStore(globals).append(snapshot, options.retentionDays);
    if (globals.json) return printJson(timeline);
    writeOutput("-", "stored the snapshot of " + sourceLabel(snapshot) + " generated " +
                         timeText(snapshot.generatedAt) + "; " + counted(std::int64_t(timeline.snapshots.size()), "snapshot") +
                         " kept\n");
}

void latest(const GlobalOptions& globals) {
    const QuotaHistoryStore store = openStore(globals);
    store.historyURL();  // a missing container is an error, not "no snapshots"
    const auto snapshot = store.latestSnapshot();
    if (!snapshot) throw Error("no snapshots in " + store.historyURL().string());
    if (globals.json) return printJson(*snapshot);
    writeOutput("-", sourceLabel(*snapshot) + ", generated " + timeText(snapshot->generatedAt) + "\n");
    printWidget(*snapshot, "text", globals);
}

}  // namespace

void registerHistoryCommand(CLI::App& root, GlobalOptions& globals) {
    auto options = std::make_shared<HistoryOptions>();
    CLI::App* group = addGroup(root, "history", "The timeline of snapshots kept for trends");
    group->require_subcommand(1);

    CLI::App* add = addGroup(*group, "append", "Store one snapshot and trim what is older than the retention");
    options->input.addOptions(*add);
    add->add_option("--retention-days", options->retentionDays, "Keep this many days (default 30)")
        ->option_text("N")->check(Values::number(0, "30"));
    add->callback([options, &globals] { append(*options, globals); });

    CLI::App* list = addGroup(*group, "list", "Show the stored snapshots, oldest first");
    list->add_option("--days", options->days, "Only the last N days")->option_text("N")->check(Values::number(0, "30"));
    list->callback([options, &globals] {
        const auto store = openStore(globals);
        printTimeline(options->days ? store.loadTimeline(*options->days) : store.loadTimeline(), globals);
    });

    addGroup(*group, "latest", "Show the newest snapshot")->callback([&globals] { latest(globals); });

    CLI::App* remove = addGroup(*group, "remove", "Delete every snapshot of one source");
    remove->add_option("--source", options->sourceID, "The source identifier")->option_text("ID")->required();
    remove->callback([options, &globals] {
        const auto remaining = openStore(globals).removeSnapshots(options->sourceID);
        if (globals.json) return printJson(remaining);
        writeOutput("-", "removed the snapshots of " + options->sourceID + "; " +
                             counted(std::int64_t(remaining.snapshots.size()), "snapshot") + " left\n");
    });

    CLI::App* trim = addGroup(*group, "trim", "Delete snapshots older than N days");
    trim->add_option("--days", options->days, "Age in days")->option_text("N")->required()->check(CLI::NonNegativeNumber);
    trim->callback([options, &globals] {
        printRemovedCount(openStore(globals).trimOlderThan(*options->days), "snapshot", globals);
    });

    addGroup(*group, "clear", "Delete every snapshot")->callback([&globals] {
        printRemovedCount(openStore(globals).clear(), "snapshot", globals);
    });
}

}  // namespace gaugepoint::cli
