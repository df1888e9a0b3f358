#include "SnapshotOutput.hpp"

#include <cmath>

#include "gaugepoint/model/QuotaFormatting.hpp"
#include "gaugepoint/platform/Files.hpp"
#include "gaugepoint/platform/Text.hpp"
#include "gaugepoint/widgets/QuotaWidgetSnapshots.hpp"
#include "gaugepoint/widgets/QuotaWidgetText.hpp"
#include "gaugepoint/widgets/TallybarSnapshotImporter.hpp"

namespace gaugepoint::cli {

namespace {

// The largest credit balance taken in: beyond it the number is a fault of the writer, and its
// text would run to hundreds of digits.
constexpr double kMaxCredits = 1e12;

// A snapshot whose numbers no provider can report is refused at the door, so that no view
// shows "150% left" or a balance of 309 digits. Throws Error naming the value's key path.
void checkSnapshotNumbers(const QuotaSnapshot& snapshot, const std::string& path) {
    for (std::size_t p = 0; p < snapshot.providers.size(); ++p) {
        const auto& provider = snapshot.providers[p];
        const std::string where = inputName(path) + ": providers[" + std::to_string(p) + "]";
        if (provider.creditsRemaining && !(std::abs(*provider.creditsRemaining) <= kMaxCredits)) {
            throw Error(where + ".creditsRemaining " + numberText(*provider.creditsRemaining) +
                        " is not a balance (at most 1e12 either way)");
        }
        for (std::size_t w = 0; w < provider.windows.size(); ++w) {
            const double used = provider.windows[w].usedPercent;
            if (!(used >= 0)) {
                throw Error(where + ".windows[" + std::to_string(w) + "].usedPercent " + numberText(used) +
                            " is below 0; a window's use is 0 or more percent");
            }
        }
    }
}

}  // namespace

QuotaSnapshot readSnapshotDocument(const std::string& path) {
    auto snapshot = readDocument<QuotaSnapshot>(path, InputLimit::document("a snapshot document"));
    checkSnapshotNumbers(snapshot, path);
    return snapshot;
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
