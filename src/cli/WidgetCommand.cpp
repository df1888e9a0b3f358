// gaugepoint widget: the quota of every provider as widget texts, from the sibling app's
// snapshot file.

#include <iostream>

#include "Commands.hpp"
#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/widgets/QuotaWidgetText.hpp"
#include "gaugepoint/widgets/TallybarSnapshotImporter.hpp"

namespace gaugepoint::cli {
namespace {

struct WidgetOptions {
    std::string snapshotPath;
    std::string format = "text";
};

void render(const QuotaSnapshot& snapshot, const WidgetOptions& options, const GlobalOptions& globals) {
    const std::string format = globals.json ? "json" : options.format;
    const QuotaWidgetView view = QuotaWidgetView::make(snapshot, resolveNow(globals), resolveLanguage(globals));
    if (format == "json") {
        writeOutput("-", json::encode(view, true) + "\n");
    } else if (format == "waybar") {
        writeOutput("-", QuotaWidgetText::waybarJSON(QuotaWidgetText::waybarModule(view)) + "\n");
    } else {
        writeOutput("-", QuotaWidgetText::providerLines(view));
    }
}

void run(const WidgetOptions& options, const GlobalOptions& globals) {
    resolveNow(globals);  // a malformed --now is a usage error before any file is touched
    const std::filesystem::path path =
        options.snapshotPath.empty() ? TallybarSnapshotImporter::defaultSourceURL() : std::filesystem::path(options.snapshotPath);
    render(TallybarSnapshotImporter{}.loadAndNormalize(path), options, globals);
}

}  // namespace

void registerWidgetCommand(CLI::App& root, GlobalOptions& globals) {
    auto options = std::make_shared<WidgetOptions>();
    CLI::App* widget = addGroup(root, "widget", "Show every provider's quota as widget texts");
    widget->add_option("--snapshot", options->snapshotPath,
                       "The sibling app's widget snapshot file (default: " +
                           TallybarSnapshotImporter::defaultSourceURL().string() + ")")
        ->option_text("FILE");
    widget->add_option("--format", options->format, "text (aligned lines), json, or waybar (a status-bar module)")
        ->check(CLI::IsMember({"text", "json", "waybar"}))
        ->option_text("FORMAT");
    widget->callback([options, &globals] { run(*options, globals); });
}

}  // namespace gaugepoint::cli
