// The gaugepoint command: parses the command line and maps failures to one line and an exit code.

#include <cstdio>
#include <exception>
#include <iostream>
#include <new>
#include <string>

#include "Commands.hpp"
#include "gaugepoint/platform/Text.hpp"

namespace {

// "lzfse compress": the command words of the subcommand being run.
std::string commandWords(const CLI::App& root) {
    std::string words;
    for (const CLI::App* app = &root; !app->get_subcommands().empty();) {
        app = app->get_subcommands().front();
        words += (words.empty() ? "" : " ") + app->get_name();
    }
    return words;
}

// The deepest command given, for a message about what it lacks.
const CLI::App* deepestCommand(const CLI::App& root) {
    const CLI::App* app = &root;
    while (!app->get_subcommands().empty()) app = app->get_subcommands().front();
    return app;
}

// "gaugepoint report: choose one of daily, weekly, ..." for a group given without its verb.
std::string missingVerbMessage(const CLI::App& root) {
    const CLI::App* group = deepestCommand(root);
    std::string verbs;
    for (const CLI::App* verb : group->get_subcommands({})) {
        verbs += (verbs.empty() ? "" : ", ") + verb->get_name();
    }
    const std::string words = commandWords(root);
    return (words.empty() ? std::string("a command is needed") : words + " needs a command") + ": " + verbs;
}

}  // namespace

int main(int argc, char** argv) {
    using namespace gaugepoint::cli;
    CLI::App root{"gaugepoint: quota texts and local stores of the AI coding-assistant quota monitor",
                  "gaugepoint"};
    GlobalOptions globals;
    root.fallthrough();  // subcommands inherit it: global options may follow the command words
    root.require_subcommand(1);
    root.set_version_flag("--version", "gaugepoint 0.1.0");
    root.add_option("--app-group-dir", globals.appGroupDir, "Directory of the shared stores")
        ->option_text("DIR")->group("Global options");
    root.add_option("--lang", globals.lang, "Interface language code (en, zh-Hans, ...)")
        ->option_text("CODE")->group("Global options");
    root.add_option("--now", globals.now,
                    "Show everything as of this moment instead of the clock; nothing dated by it is written to the "
                    "stores")
        ->option_text("ISO8601")->group("Global options");
    root.add_flag("--json", globals.json, "Print data as one JSON document")->group("Global options");

    registerWidgetCommand(root, globals);
    registerLzfseCommand(root, globals);
    registerBlobCommand(root, globals);
    registerTokensCommand(root, globals);
    registerHistoryCommand(root, globals);
    registerSourcesCommand(root, globals);
    registerCatalogCommand(root, globals);
    registerCostCommand(root, globals);
    registerLedgerCommand(root, globals);
    registerSessionsCommand(root, globals);
    registerRegistryCommand(root, globals);
    registerInboxCommand(root, globals);
    registerSyncCommand(root, globals);
    registerScanCommand(root, globals);
    registerReportCommand(root, globals);
    registerStatusLineCommand(root, globals);
    registerMcpCommand(root, globals);

    try {
        root.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return root.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return root.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return root.exit(e);
    } catch (const CLI::RequiredError& e) {
        const bool verbMissing = std::string(e.what()).find("subcommand") != std::string::npos;
        std::cerr << "gaugepoint: " << (verbMissing ? missingVerbMessage(root) : gaugepoint::singleLine(e.what()))
                  << " (see --help)\n";
        return 2;
    } catch (const CLI::ParseError& e) {
        std::cerr << "gaugepoint: " << gaugepoint::singleLine(e.what()) << " (see --help)\n";
        return 2;
    } catch (const UsageError& e) {
        std::cerr << "gaugepoint: " << gaugepoint::singleLine(e.what()) << " (see --help)\n";
        return 2;
    } catch (const std::bad_alloc&) {
        // Most commands say what they were doing; this is the net under the rest.
        std::fflush(stdout);
        std::cerr << "gaugepoint: out of memory while running \"" << commandWords(root) << "\"\n";
        return 1;
    } catch (const std::exception& e) {
        std::fflush(stdout);
        std::cerr << "gaugepoint: " << gaugepoint::singleLine(e.what()) << "\n";  // a failure is one line
        return 1;
    }
    return 0;
}
