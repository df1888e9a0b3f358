// gaugepoint widget: the quota of every provider as widget texts, from the sibling app's
// snapshot file, this machine's own snapshot (made by `gaugepoint scan`), or the newest
// snapshot in the source snapshot store.

#include <algorithm>
#include <iostream>

#include "Commands.hpp"
#include "SnapshotOutput.hpp"
#include "gaugepoint/stores/QuotaSourceSnapshotStore.hpp"
#include "gaugepoint/stores/SQLiteConnectionHolder.hpp"
#include "gaugepoint/widgets/QuotaWidgetSnapshots.hpp"
#include "gaugepoint/widgets/TallybarSnapshotImporter.hpp"

namespace gaugepoint::cli {
namespace {

struct WidgetOptions {
    std::string snapshotPath;
    std::string format = "text";
    bool fromSources = false;
    bool strict = false;
    std::string sourceID;
    std::vector<std::string> providers;
};

const char* const kNoSnapshot = "no quota snapshot yet: run `gaugepoint scan` to make one from the logs of the coding tools";

// A missing snapshot: an error for scripts (--strict), else nothing to show.
class NoSnapshot : public Error {
public:
    using Error::Error;
};

// Every stored source's snapshot, or one source's (by record id or source id).
QuotaSnapshot storedSnapshot(const WidgetOptions& options, const GlobalOptions& globals) {
    const QuotaSourceSnapshotStore store{resolveConfiguration(globals)};
    const auto registry = store.load();
    if (registry.entries.empty()) throw NoSnapshot("no stored source snapshots in " + store.databaseURL().string());
    if (options.sourceID.empty()) return QuotaWidgetSnapshots::combined(registry);
    for (const auto& record : registry.entries) {
        if (record.id == options.sourceID || record.sourceID == options.sourceID) return record.snapshot;
    }
    throw Error("no stored snapshot of source \"" + options.sourceID + "\"");
}

// The sibling app's file when it is there, else this machine's own snapshot.
QuotaSnapshot defaultSnapshot(const GlobalOptions& globals) {
    auto snapshot = QuotaWidgetSnapshots::preferred(resolveConfiguration(globals), resolveNow(globals),
                                                    !globals.now.empty(), systemCalendar());
    if (!snapshot) throw NoSnapshot(kNoSnapshot);
    return std::move(*snapshot);
}

// Keeps the providers named with --provider, in the snapshot's order.
void keepProviders(QuotaSnapshot& snapshot, const std::vector<std::string>& ids) {
    if (ids.empty()) return;
    std::erase_if(snapshot.providers, [&](const ProviderQuota& p) {
        return std::find(ids.begin(), ids.end(), p.id) == ids.end();
    });
}

// What a status bar shows before the first scan: a placeholder instead of an error.
void printPlaceholder(std::string_view format, const GlobalOptions& globals, const std::string& reason) {
    std::cerr << "gaugepoint: " << reason << "\n";
    if (format == "text" || format == "line") return writeOutput("-", "gaugepoint: no quota reading yet\n");
    printWidget(QuotaSnapshot{}, format, globals);
}

void run(const WidgetOptions& options, const GlobalOptions& globals) {
    resolveNow(globals);  // a malformed --now is a usage error before any file is touched
    if (!options.sourceID.empty() && !options.fromSources) throw UsageError("--source needs --from-sources");
    const std::string format = globals.json ? "json" : options.format;
    QuotaSnapshot snapshot;
    try {
        snapshot = options.fromSources          ? storedSnapshot(options, globals)
                   : options.snapshotPath.empty() ? defaultSnapshot(globals)
                                                  : readSiblingSnapshot(options.snapshotPath);
    } catch (const NoSnapshot& e) {
        // A store that could not be read is not "no snapshot yet": the command names it instead.
        if (options.strict || SQLiteConnectionHolder::lastFailure()) throw;
        return printPlaceholder(format, globals, e.what());
    }
    keepProviders(snapshot, options.providers);
    printWidget(snapshot, format, globals);
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
    widget->add_option("--provider", options->providers, "Only this provider (repeatable): claude, codex, gemini, ...")
        ->option_text("ID");
    widget->add_option("--format", options->format,
                       "text (aligned lines), json, waybar (a status-bar module) or line (one short line for tmux, "
                       "i3blocks, Polybar)")
        ->check(Values::oneOf({"text", "json", "waybar", "line"}))
        ->option_text("FORMAT");
    widget->add_flag("--strict", options->strict,
                     "Fail (exit 1) when there is no snapshot at all, instead of printing a placeholder");
    widget->callback([options, &globals] { run(*options, globals); });
}

}  // namespace gaugepoint::cli
