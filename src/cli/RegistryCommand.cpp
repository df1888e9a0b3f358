// gaugepoint registry: how far each session file has been imported, and the scan checkpoints.

#include "Commands.hpp"
#include "TextTable.hpp"
#include "gaugepoint/platform/Text.hpp"
#include "gaugepoint/stores/QuotaSessionFileRegistry.hpp"

namespace gaugepoint::cli {
namespace {

struct RegistryOptions {
    std::string path;
    std::optional<std::string> providerID;
    std::optional<std::string> mode;
    std::optional<std::string> sourceID;
};

QuotaSessionFileRegistry openRegistry(const GlobalOptions& globals) { return QuotaSessionFileRegistry{resolveConfiguration(globals)}; }

std::optional<QuotaSessionContentCaptureMode> captureMode(const RegistryOptions& options) {
    if (!options.mode) return std::nullopt;
    return parseEnumeration<QuotaSessionContentCaptureMode>(*options.mode, "--mode");
}

// PATH, --provider and --mode name one file's entry.
struct EntryKey {
    std::string provider;
    QuotaSessionContentCaptureMode mode;
};
EntryKey entryKey(const RegistryOptions& options, std::string_view command) {
    if (!options.providerID || !options.mode) throw UsageError(std::string(command) + " PATH needs --provider ID and --mode MODE");
    return {*options.providerID, *captureMode(options)};
}

std::string optionalNumber(const std::optional<std::int64_t>& n) { return n ? groupedInteger(*n) : "-"; }

void list(const RegistryOptions& options, const GlobalOptions& globals) {
    const auto entries = openRegistry(globals).list(options.providerID, captureMode(options), options.sourceID);
    if (globals.json) return printJson(entries);
    std::vector<std::vector<std::string>> rows{{"Path", "Provider", "Mode", "Source", "Offset", "Size", "Parser", "Updated"}};
    for (const auto& e : entries) {
        rows.push_back({singleLine(e.path), e.providerID, std::string(json::rawValue(e.captureMode)),
                        e.sourceID.empty() ? "-" : e.sourceID, groupedInteger(e.lastOffset), optionalNumber(e.size),
                        std::to_string(e.parserVersion), timeText(e.updatedAt)});
    }
    // A narrow terminal keeps path, provider, offset and size, the path cut from the left-most end.
    TableFormat format{{false, false, false, false, true, true, true, false},
                       {false, false, true, true, false, false, true, true},
                       {true, false, false, false, false, false, false, false}};
    writeOutput("-", renderTable(rows, format) + counted(std::int64_t(entries.size()), "file") + "\n");
}

void show(const RegistryOptions& options, const GlobalOptions& globals) {
    const auto key = entryKey(options, "registry show");
    const auto entry = openRegistry(globals).load(options.path, options.sourceID, key.provider, key.mode);
    if (!entry) throw Error("no registry entry for " + options.path + " (" + key.provider + ", " + std::string(json::rawValue(key.mode)) + ")");
    if (globals.json) return printJson(*entry);
    writeOutput("-", alignedRows({
                         {"path", singleLine(entry->path)},
                         {"provider", entry->providerID},
                         {"capture mode", std::string(json::rawValue(entry->captureMode))},
                         {"source", entry->sourceID.empty() ? "-" : entry->sourceID},
                         {"session", entry->sessionID.value_or("-")},
                         {"read up to", groupedInteger(entry->lastOffset) + " bytes"},
                         {"file", entry->fileIdentifier.value_or("-") + ", " + optionalNumber(entry->size) + " bytes, modified " +
                                      timeText(entry->modifiedAt, "-")},
                         {"parser version", std::to_string(entry->parserVersion)},
                         {"updated", timeText(entry->updatedAt)},
                     }));
}

void remove(const RegistryOptions& options, const GlobalOptions& globals) {
    const auto registry = openRegistry(globals);
    if (options.path.empty()) {
        if (!options.providerID || options.mode || options.sourceID) {
            throw UsageError("registry remove needs PATH --provider ID --mode MODE, or --provider ID alone");
        }
        return printRemovedCount(registry.remove(*options.providerID), "entry", globals);
    }
    const auto key = entryKey(options, "registry remove");
    printRemovedCount(registry.remove(options.path, options.sourceID, key.provider, key.mode), "entry", globals);
}

void checkpoints(const GlobalOptions& globals) {
    const auto catalog = QuotaSessionImportStateStore{resolveConfiguration(globals)}.load();
    if (globals.json) return printJson(catalog);
    std::vector<std::vector<std::string>> rows{{"Source", "Provider", "Files", "Parser", "Updated", "Signature"}};
    for (const auto& c : catalog.entries) {
        rows.push_back({c.sourceID, c.providerID, groupedInteger(std::int64_t(c.candidateFileFingerprints.size())),
                        std::to_string(c.parserVersion), timeText(c.updatedAt), truncatedToWidth(c.scanSignature, 20)});
    }
    writeOutput("-", alignedRows(rows) + counted(std::int64_t(catalog.entries.size()), "checkpoint") + "\n");
}

}  // namespace

void registerRegistryCommand(CLI::App& root, GlobalOptions& globals) {
    auto options = std::make_shared<RegistryOptions>();
    CLI::App* group = addGroup(root, "registry", "How far each session file has been imported");
    group->require_subcommand(1);
    const auto filters = [&](CLI::App* command) {
        command->add_option("--provider", options->providerID, "Provider id (claude, codex, gemini, ...)")->option_text("ID");
        command->add_option("--mode", options->mode, "Capture mode")
            ->option_text("MODE")
            ->check(Values::oneOf(enumerationNames<QuotaSessionContentCaptureMode>()));
        command->add_option("--source", options->sourceID, "Source id")->option_text("ID");
    };

    CLI::App* listCommand = addGroup(*group, "list", "Every entry, latest updated first");
    filters(listCommand);
    listCommand->callback([options, &globals] { list(*options, globals); });

    CLI::App* showCommand = addGroup(*group, "show", "One file's entry");
    showCommand->add_option("path", options->path, "The file")->required();
    filters(showCommand);
    showCommand->callback([options, &globals] { show(*options, globals); });

    CLI::App* removeCommand = addGroup(*group, "remove", "Forget one file (it is read again from the start), or a provider's files");
    removeCommand->add_option("path", options->path, "The file");
    filters(removeCommand);
    removeCommand->callback([options, &globals] { remove(*options, globals); });

    addGroup(*group, "clear", "Forget every file")->callback([&globals] {
        printRemovedCount(openRegistry(globals).clear(), "entry", globals);
    });
    addGroup(*group, "checkpoints", "The last scan of each source and provider (--json: the document)")
        ->callback([&globals] { checkpoints(globals); });
}

}  // namespace gaugepoint::cli
