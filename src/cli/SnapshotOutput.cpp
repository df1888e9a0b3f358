#include "SnapshotOutput.hpp"

#include "gaugepoint/model/QuotaFormatting.hpp"
#include "gaugepoint/platform/Files.hpp"
#include "gaugepoint/platform/Text.hpp"
#include "gaugepoint/widgets/QuotaWidgetSnapshots.hpp"
#include "gaugepoint/widgets/QuotaWidgetText.hpp"
#include "gaugepoint/widgets/TallybarSnapshotImporter.hpp"

namespace gaugepoint::cli {

QuotaSnapshot readSnapshotDocument(const std::string& path) {
    return readDocument<QuotaSnapshot>(path, InputLimit::document("a snapshot document"));
}

QuotaSnapshot readSiblingSnapshot(const std::string& path) {
    const std::filesystem::path file =
        path.empty() ? TallybarSnapshotImporter::defaultSourceURL() : std::filesystem::path(path);
    return TallybarSnapshotImporter{}.loadAndNormalize(file);
}

void SnapshotInput::addOptions(CLI::App& command) {
    snapshotOption = command.add_option("--snapshot", snapshotPath, "A quota snapshot JSON document ('-': stdin)")
                         ->option_text("FILE");
    siblingOption = command.add_option("--sibling", siblingPath, "Import a sibling widget snapshot file instead")
                        ->option_text("FILE");
    snapshotOption->excludes(siblingOption);
}

QuotaSnapshot SnapshotInput::read(std::string_view commandName) const {
    if (*siblingOption) return readSiblingSnapshot(siblingPath);
    if (*snapshotOption) return readSnapshotDocument(snapshotPath);
    throw UsageError(std::string(commandName) + " needs --snapshot FILE or --sibling FILE");
}

void printWidget(const QuotaSnapshot& snapshot, std::string_view format, const GlobalOptions& globals) {
    const auto configuration = resolveConfiguration(globals);
    const auto policy = QuotaFreshnessPolicy::fromDefaults(*configuration.userDefaults);
    if (format == "json") {
        return writeOutput("-", QuotaWidgetSnapshots::widgetDocument(snapshot, resolveNow(globals), resolveLanguage(globals),
                                                                       policy, configuration, systemCalendar()) + "\n");
    }
    const QuotaWidgetView view = QuotaWidgetSnapshots::view(snapshot, resolveNow(globals), resolveLanguage(globals), policy,
                                                            configuration, systemCalendar());
    if (format == "waybar") {
        writeOutput("-", QuotaWidgetText::waybarJSON(QuotaWidgetText::waybarModule(view)) + "\n");
    } else if (format == "line") {
        writeOutput("-", QuotaWidgetText::statusLine(view) + "\n");
    } else {
        writeOutput("-", QuotaWidgetText::providerLines(view));
    }
}

std::string snapshotSummary(const QuotaSnapshot& snapshot, std::string_view language) {
    std::string summary;
    for (const auto& provider : snapshot.providers) {
        if (!summary.empty()) summary += " · ";
        summary += provider.displayName;
        if (const auto top = provider.topWindow()) {
            summary += " " + QuotaFormatting::percent(top->remainingPercent());
        } else if (const auto credits = QuotaFormatting::credits(provider.creditsRemaining, language)) {
            summary += " " + *credits;
        }
    }
    return summary.empty() ? "-" : summary;
}

}  // namespace gaugepoint::cli
