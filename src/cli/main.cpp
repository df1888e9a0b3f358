// The gaugepoint command: parses the command line and maps failures to one line and an exit code.

#include <algorithm>
#include <cstdio>
#include <exception>
#include <iostream>
#include <new>
#include <string>

#include "Commands.hpp"
#include "gaugepoint/pricing/QuotaMetadataCatalog.hpp"
#include "TextTable.hpp"
#include "UsageErrors.hpp"
#include "gaugepoint/Version.hpp"
#include "gaugepoint/platform/Files.hpp"
#include "gaugepoint/platform/Text.hpp"
#include "gaugepoint/stores/SQLiteConnectionHolder.hpp"

#include <sqlite3.h>

namespace {

// What a person can do about a store failure, by SQLite's result code; empty for a code that
// says nothing about the file (a row that cannot be bound, say).
std::string storeAdvice(const gaugepoint::SQLiteStoreFailure& failure) {
    switch (failure.code) {
        case gaugepoint::sqlite::Failure::foreignFile:
            return "this file holds another program's tables (" + failure.detail +
                   "), not gaugepoint's; nothing was written to it: move it away or give another --app-group-dir";
        case SQLITE_NOTADB:
        case SQLITE_CORRUPT:
            return "the file is damaged or not a gaugepoint store; nothing was written to it: restore it from a backup, "
                   "or move it aside and gaugepoint starts a new one (scan fills the session stores again from the logs)";
        case SQLITE_FULL:
            return "disk full: free space and run the command again; nothing was lost";
        case SQLITE_READONLY:
        case SQLITE_PERM:
        case SQLITE_AUTH:
            return "no permission to change it or its directory: reading works, changes need write access";
        case SQLITE_CANTOPEN:
            return "cannot open or create it: check that its directory exists and may be written";
        case SQLITE_IOERR:
            return "the disk failed reading or writing it: check the disk and run the command again; nothing was lost";
        default:
            return "";
    }
}

// Whether a failure that a reader swallowed (showing the store as empty) must fail the command:
// the file is damaged, foreign or cannot be opened, as opposed to a row that was skipped.
bool unreadableStore(const gaugepoint::SQLiteStoreFailure& failure) {
    switch (failure.code) {
        case gaugepoint::sqlite::Failure::foreignFile:
        case SQLITE_NOTADB:
        case SQLITE_CORRUPT:
        case SQLITE_CANTOPEN:
        case SQLITE_PERM:
        case SQLITE_AUTH:
        case SQLITE_IOERR:
            return true;
        default:
            return false;
    }
}

// A store failure on one line: the store error's own description kept whole, the file named
// in front of it (unless the description already names it), and what to do after it.
std::string storeFailureLine(const std::string& description, const gaugepoint::SQLiteStoreFailure& failure) {
    const std::string file = failure.file.string();
    std::string line = description.find(file) == std::string::npos ? file + ": " + description : description;
    const std::string advice = storeAdvice(failure);
    if (!advice.empty()) line += "; " + advice;
    return line;
}

// A failure in the words of this machine: a store directory that cannot be made is named by its
// path (the stores' own texts speak of the macOS App Group container).
std::string failureMessage(const std::exception& failure, const gaugepoint::cli::GlobalOptions& globals) {
    const std::string_view what = failure.what();
    if (const auto store = gaugepoint::SQLiteConnectionHolder::lastFailure();
        store && !store->message.empty() && what.find(store->message) != std::string_view::npos) {
        return storeFailureLine(std::string(what), *store);
    } else if (store && unreadableStore(*store)) {
        // A reader showed the store as empty and the command failed on the emptiness ("no
        // quota snapshot yet"): the store is the cause worth naming.
        return storeFailureLine(store->message, *store);
    }
    if (!what.starts_with("The App Group container is unavailable") &&
        !what.starts_with("The local storage container is unavailable")) {
        return std::string(what);
    }
    const auto directory = gaugepoint::cli::resolveConfiguration(globals).intendedAppGroupDirectory();
    if (!directory) return "no directory for the stores: set XDG_DATA_HOME or HOME, or give --app-group-dir DIR";
    return "cannot create or write the store directory " + directory->string() +
           (globals.appGroupDir.empty() ? "; give another with --app-group-dir DIR" : "");
}

}  // namespace

// Says which unreadable side files were set aside (on stderr, after the command's output).
struct SetAsideNotices {
    ~SetAsideNotices() {
        for (const auto& notice : gaugepoint::takeSetAsideNotices()) {
            std::cerr << "gaugepoint: " << gaugepoint::singleLine(notice) << "\n";
        }
    }
};

int main(int argc, char** argv) {
    const SetAsideNotices notices;
    using namespace gaugepoint::cli;
    CLI::App root{"gaugepoint: quota texts and local stores of the AI coding-assistant quota monitor",
                  "gaugepoint"};
    GlobalOptions globals;
    root.fallthrough();  // subcommands inherit it: global options may follow the command words
    root.require_subcommand(1);
    root.set_version_flag("--version", std::string("gaugepoint ") + GAUGEPOINT_VERSION);
    root.add_option("--app-group-dir", globals.appGroupDir, "Directory of the shared stores")
        ->option_text("DIR")->group("Global options");
    root.add_option("--lang", globals.lang, "Interface language code (en, zh-Hans, ...)")
        ->option_text("CODE")->group("Global options");
    root.add_option("--now", globals.now,
                    "Show everything as of this moment instead of the clock; nothing dated by it is written to the "
                    "stores")
        ->option_text("ISO8601")->group("Global options");
    root.add_flag("--json,-j", globals.json, "Print data as one JSON document")->group("Global options");
    root.add_flag("--compact", globals.compact, "Tables in their narrow layout")->group("Global options");
    root.add_flag("--wide", globals.wide, "Tables with every column, uncut, whatever the terminal's width")
        ->group("Global options");
    root.add_flag("--no-color", globals.noColor, "No colour, even on a terminal (also: NO_COLOR=1)")->group("Global options");
    // Callbacks run inside parse(), after every option was read: the style is set first.
    // The catalogue that prices anything is that of the stores' directory (loaded when first used).
    root.parse_complete_callback([&globals] {
        OutputStyle::configure(globals);
        gaugepoint::QuotaMetadataCatalog::useConfiguration(resolveConfiguration(globals));
    });

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
    registerAlertsCommand(root, globals);
    registerMcpCommand(root, globals);
    registerWatchCommand(root, globals);
    registerDashboardCommand(root, globals);

    try {
        // CLI11 takes the arguments last first.
        std::vector<std::string> arguments = normalizedArguments({argv + 1, argv + argc});
        std::reverse(arguments.begin(), arguments.end());
        root.parse(arguments);
    } catch (const CLI::CallForHelp& e) {
        return root.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return root.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return root.exit(e);
    } catch (const CLI::ParseError& e) {
        std::cerr << "gaugepoint: " << usageErrorMessage(e, root) << " (see --help)\n";
        return 2;
    } catch (const UsageError& e) {
        std::cerr << "gaugepoint: " << gaugepoint::singleLine(e.what()) << " (see --help)\n";
        return 2;
    } catch (const ExitStatus& e) {
        std::fflush(stdout);
        return e.code;
    } catch (const std::bad_alloc&) {
        // Most commands say what they were doing; this is the net under the rest.
        std::fflush(stdout);
        std::cerr << "gaugepoint: out of memory while running \"" << commandWords(root) << "\"\n";
        return 1;
    } catch (const std::exception& e) {
        std::fflush(stdout);
        std::cerr << "gaugepoint: " << gaugepoint::singleLine(failureMessage(e, globals)) << "\n";  // a failure is one line
        return 1;
    }
    // Readers that feed widgets show a store they cannot read as empty; a command must not.
    if (const auto store = gaugepoint::SQLiteConnectionHolder::lastFailure(); store && unreadableStore(*store)) {
        std::fflush(stdout);
        std::cerr << "gaugepoint: " << gaugepoint::singleLine(storeFailureLine(store->message, *store)) << "\n";
        return 1;
    }
    return 0;
}
