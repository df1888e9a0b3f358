// gaugepoint widget: the quota of every provider as widget texts, from the sibling app's
// snapshot file, this machine's own snapshot (made by `gaugepoint scan`), or the newest
// snapshot in the source snapshot store.

#include "Commands.hpp"
#include "SnapshotOutput.hpp"
#include "gaugepoint/reports/LocalQuotaSnapshot.hpp"
#include "gaugepoint/stores/QuotaSourceSnapshotStore.hpp"
#include "gaugepoint/widgets/TallybarSnapshotImporter.hpp"

namespace gaugepoint::cli {
namespace {

struct WidgetOptions {
    std::string snapshotPath;
    std::string format = "text";
    bool fromSources = false;
    std::string sourceID;
};

// Every source's snapshot as one: each provider named with its machine when there are several,
// so that a bar shows the most constrained window of all the user's machines.
QuotaSnapshot combined(const QuotaSourceSnapshotRegistry& registry) {
    QuotaSnapshot all;
    all.generatedAt = registry.entries.front().snapshot.generatedAt;
    for (const auto& record : registry.entries) {
        all.generatedAt = std::max(all.generatedAt, record.snapshot.generatedAt);
        for (auto provider : record.snapshot.providers) {
            if (registry.entries.size() > 1) provider.displayName = record.sourceName + " · " + provider.displayName;
            all.providers.push_back(std::move(provider));
        }
    }
    return all;
}

// Every stored source's snapshot, or one source's (by record id or source id).
QuotaSnapshot storedSnapshot(const WidgetOptions& options, const GlobalOptions& globals) {
    const QuotaSourceSnapshotStore store{resolveConfiguration(globals)};
    const auto registry = store.load();
    if (registry.entries.empty()) throw Error("no stored source snapshots in " + store.databaseURL().string());
    if (options.sourceID.empty()) return combined(registry);
    for (const auto& record : registry.entries) {
        if (record.id == options.sourceID || record.sourceID == options.sourceID) return record.snapshot;
    }
    throw Error("no stored snapshot of source \"" + options.sourceID + "\"");
}

// The sibling app's file when it is there, else this machine's own snapshot.
QuotaSnapshot defaultSnapshot(const GlobalOptions& globals) {
    const auto sibling = TallybarSnapshotImporter::defaultSourceURL();
    std::error_code error;
    if (std::filesystem::exists(sibling, error)) return readSiblingSnapshot(sibling.string());
    if (auto own = LocalQuotaSnapshot::latest(resolveConfiguration(globals))) return std::move(*own);
    throw Error("no quota snapshot yet: run `gaugepoint scan` to make one from the logs of the coding tools");
}

void run(const WidgetOptions& options, const GlobalOptions& globals) {
    resolveNow(globals);  // a malformed --now is a usage error before any file is touched
    if (!options.sourceID.empty() && !options.fromSources) throw UsageError("--source needs --from-sources");
    const QuotaSnapshot snapshot = options.fromSources          ? storedSnapshot(options, globals)
                                   : options.snapshotPath.empty() ? defaultSnapshot(globals)
                                                                  : readSiblingSnapshot(options.snapshotPath);
    printWidget(snapshot, globals.json ? "json" : options.format, globals);
}

}  // namespace

void registerWidgetCommand(CLI::App& root, GlobalOptions& globals) {
    auto options = std::make_shared<WidgetOptions>();
    CLI::App* widget = addGroup(root, "widget", "Show every provider's quota as widget texts");
    auto* snapshot = widget->add_option("--snapshot", options->snapshotPath,
                                        "The sibling app's widget snapshot file (default: " +
                                            TallybarSnapshotImporter::defaultSourceURL().string() +
                                            " when it exists, else this machine's snapshot from `gaugepoint scan`)")
                         ->option_text("FILE");
    widget->add_flag("--from-sources", options->fromSources,
                     "Every machine's snapshot in the source snapshot store (this one's and those pulled by sync)")
        ->excludes(snapshot);
    widget->add_option("--source", options->sourceID, "With --from-sources: that source's snapshot (record or source id)")
        ->option_text("ID");
    widget->add_option("--format", options->format,
                       "text (aligned lines), json, waybar (a status-bar module) or line (one short line for tmux, "
                       "i3blocks, Polybar)")
        ->check(CLI::IsMember({"text", "json", "waybar", "line"}))
        ->option_text("FORMAT");
    widget->callback([options, &globals] { run(*options, globals); });
}

}  // namespace gaugepoint::cli
