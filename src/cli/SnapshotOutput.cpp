#include "SnapshotOutput.hpp"

#include "gaugepoint/model/QuotaFormatting.hpp"
#include "gaugepoint/platform/Files.hpp"
#include "gaugepoint/platform/Text.hpp"
#include "gaugepoint/widgets/QuotaWidgetText.hpp"
#include "gaugepoint/widgets/TallybarSnapshotImporter.hpp"

namespace gaugepoint::cli {

QuotaSnapshot readSnapshotDocument(const std::string& path) {
    const std::string text = readInput(path, InputLimit::document("a snapshot document"));
    try {
        return json::decode<QuotaSnapshot>(text);
    } catch (const json::DecodingError& e) {
        throw Error("cannot decode " + (path.empty() || path == "-" ? std::string("standard input") : path) + ": " +
                    e.what());
    }
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
    const QuotaWidgetView view = QuotaWidgetView::make(snapshot, resolveNow(globals), resolveLanguage(globals));
    if (format == "json") {
        printJson(view);
    } else if (format == "waybar") {
        writeOutput("-", QuotaWidgetText::waybarJSON(QuotaWidgetText::waybarModule(view)) + "\n");
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

QuotaSyncConfiguration resolveConfiguration(const GlobalOptions& globals) {
    QuotaSyncConfiguration configuration = QuotaSyncConfiguration::standard();
    if (!globals.appGroupDir.empty()) configuration.appGroupDirectory = std::filesystem::path(globals.appGroupDir);
    if (!globals.now.empty()) configuration.clock = Clock::fixedAt(resolveNow(globals));
    return configuration;
}

std::string counted(std::int64_t count, std::string_view noun) {
    return std::to_string(count) + " " + std::string(noun) + (count == 1 ? "" : "s");
}

void printRemovedCount(std::int64_t count, std::string_view noun, const GlobalOptions& globals) {
    if (!globals.json) return writeOutput("-", counted(count, noun) + " removed\n");
    json::JsonWriter w;
    w.beginObject();
    json::writeMember(w, "removed", count);
    w.endObject();
    writeOutput("-", w.take() + "\n");
}

std::string alignedRows(const std::vector<std::vector<std::string>>& rows) {
    std::vector<std::size_t> widths;
    for (const auto& row : rows) {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], displayWidth(row[i]));
    }
    std::string text;
    for (const auto& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < row.size(); ++i) {
            line += row[i];
            if (i + 1 < row.size()) line.append(widths[i] - displayWidth(row[i]) + 2, ' ');
        }
        text += line + "\n";
    }
    return text;
}

}  // namespace gaugepoint::cli
