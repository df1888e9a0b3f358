// gaugepoint scan: import the local logs of the coding tools.

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <tuple>

#include "Commands.hpp"
#include "gaugepoint/platform/Text.hpp"
#include "LogScan.hpp"
#include "ScanProgress.hpp"
#include "SyncServer.hpp"
#include "gaugepoint/alerts/QuotaAlerts.hpp"
#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/pricing/QuotaMetadataCatalog.hpp"
#include "gaugepoint/reports/ClaudeBlockLimit.hpp"
#include "gaugepoint/reports/LocalUsageScan.hpp"

namespace gaugepoint::cli {
namespace {

struct ScanCommandOptions {
    LogHomesOptions homes;
    std::string capture = "metadataOnly";
    std::string claudeBlockLimit;  // a number of tokens, "auto", or 0 to remove
    bool quiet = false;
    bool verbose = false;
};

// "auto", or a whole number of tokens (0 removes the setting).
ClaudeBlockLimitSetting parseBlockLimit(const std::string& text) {
    if (text == "auto") return {std::nullopt, true};
    std::int64_t tokens = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), tokens);
    if (error != std::errc() || end != text.data() + text.size() || tokens < 0) {
        throw UsageError("--claude-block-limit takes a number of tokens or auto, e.g. --claude-block-limit 880000 (0 "
                         "removes it); got \"" + text + "\"");
    }
    return {tokens > 0 ? std::optional(tokens) : std::nullopt, false};
}

std::string summaryLine(const QuotaScanSummary& s) {
    std::string line = counted(s.filesRead, "file") + " read, " + groupedInteger(s.filesUnchanged) + " unchanged";
    if (s.filesSkipped > 0) line += ", " + groupedInteger(s.filesSkipped) + " skipped";
    line += " · " + groupedInteger(s.newSessions) + " new " + (s.newSessions == 1 ? "session" : "sessions") + ", " +
            groupedInteger(s.updatedSessions) + " updated";
    line += " · " + groupedInteger(s.tokens) + " tokens";
    line += " · " + groupedInteger(s.linesSkipped) + (s.linesSkipped == 1 ? " line" : " lines") + " skipped";
    return line;
}

void scan(const ScanCommandOptions& options, const GlobalOptions& globals) {
    QuotaScanOptions scanOptions;
    scanOptions.capture = parseEnumeration<QuotaSessionContentCaptureMode>(options.capture, "--capture");
    options.homes.applyTo(scanOptions);
    if (!options.claudeBlockLimit.empty()) {
        ClaudeBlockLimit::setSetting(*resolveConfiguration(globals).userDefaults,
                                     parseBlockLimit(options.claudeBlockLimit));
    }
    if (!options.quiet) warnAboutMissingHomes(options.homes);
    const QuotaScanSummary summary = scanAndPublish(scanOptions, globals, options.quiet);
    std::optional<SyncPushSummary> pushed;
    if (const auto url = resolveSyncURL("", globals)) {
        try {
            pushed = syncWith(*url, globals).push();
        } catch (const Error& e) {
            throw Error(std::string("the logs were imported, but the push to the sync server failed: ") + e.what());
        }
    }
    if (globals.json) return printJson(summary);
    if (options.quiet) return;
    std::string text = summaryLine(summary) + "\n";
    if (options.verbose) {
        for (const auto& p : summary.problems) {
            text += "  " + singleLine(p.path) + (p.offset ? " at byte " + std::to_string(*p.offset) : "") + ": " +
                    singleLine(p.reason) + "\n";
        }
    }
    if (pushed) text += pushSummaryLine(*pushed) + "\n";
    writeOutput("-", text);
}

}  // namespace

void LogHomesOptions::addOptions(CLI::App& command) {
    command.add_option("--claude-dir", claudeDirs, "A Claude Code home (repeatable; default $CLAUDE_CONFIG_DIR, "
                                                   "else ~/.config/claude and ~/.claude)")
        ->option_text("DIR");
    command.add_option("--codex-dir", codexDirs, "A Codex CLI home (repeatable; default $CODEX_HOME, else ~/.codex)")
        ->option_text("DIR");
    command.add_option("--gemini-dir", geminiDirs,
                       "A Gemini CLI home (repeatable; default $GEMINI_CLI_HOME/.gemini, else ~/.gemini)")
        ->option_text("DIR");
    command.add_option("--opencode-dir", opencodeDirs,
                       "An OpenCode data directory (repeatable; default $XDG_DATA_HOME/opencode, else ~/.local/share/opencode)")
        ->option_text("DIR");
    command.add_option("--copilot-dir", copilotDirs, "A Copilot CLI home (repeatable; default $COPILOT_HOME, else ~/.copilot)")
        ->option_text("DIR");
    command.add_option("--qwen-dir", qwenDirs, "A Qwen Code home (repeatable; default $QWEN_DATA_DIR, else ~/.qwen)")
        ->option_text("DIR");
    command.add_option("--amp-dir", ampDirs,
                       "An Amp data directory (repeatable; default $AMP_DATA_DIR, else ~/.local/share/amp)")
        ->option_text("DIR");
    command.add_option("--goose-dir", gooseDirs,
                       "A Goose data directory (repeatable; default $GOOSE_PATH_ROOT/data, else ~/.local/share/goose)")
        ->option_text("DIR");
    command.add_option("--kimi-dir", kimiDirs,
                       "A Kimi CLI or Kimi Code home (repeatable; default $KIMI_SHARE_DIR, else ~/.kimi, and "
                       "$KIMI_CODE_HOME, else ~/.kimi-code)")
        ->option_text("DIR");
    command.add_option("--pi-dir", piDirs, "A pi-agent home (repeatable; default $PI_CODING_AGENT_DIR, else ~/.pi/agent)")
        ->option_text("DIR");
}

void LogHomesOptions::applyTo(QuotaScanOptions& options) const {
    const auto homes = [&](const char* provider, const std::vector<std::string>& dirs) {
        if (!dirs.empty()) options.homes[provider] = {dirs.begin(), dirs.end()};
    };
    homes("claude", claudeDirs);
    homes("codex", codexDirs);
    homes("gemini", geminiDirs);
    homes("opencode", opencodeDirs);
    homes("copilot", copilotDirs);
    homes("qwen", qwenDirs);
    homes("amp", ampDirs);
    homes("goose", gooseDirs);
    homes("kimi", kimiDirs);
    homes("pi", piDirs);
}

std::vector<std::filesystem::path> searchedHomes(const QuotaScanOptions& options) {
    std::vector<std::filesystem::path> homes;
    for (const auto& tool : codingTools()) {
        const auto named = options.homes.find(tool->provider().id);
        const auto& mine = named != options.homes.end() ? named->second : tool->defaultHomes();
        homes.insert(homes.end(), mine.begin(), mine.end());
    }
    return homes;
}

void warnAboutMissingHomes(const LogHomesOptions& homes) {
    const auto check = [](const std::string& what, const std::string& dir) {
        std::error_code error;
        if (!std::filesystem::is_directory(dir, error)) {
            std::fprintf(stderr, "gaugepoint: %s %s is not a directory; nothing was read there\n", what.c_str(), dir.c_str());
        }
    };
    for (const auto& [option, dirs, variable] :
         {std::tuple{"--claude-dir", &homes.claudeDirs, "CLAUDE_CONFIG_DIR"}, std::tuple{"--codex-dir", &homes.codexDirs, "CODEX_HOME"},
          std::tuple{"--gemini-dir", &homes.geminiDirs, "GEMINI_CLI_HOME"},
          std::tuple{"--opencode-dir", &homes.opencodeDirs, ""},  // XDG_DATA_HOME is not OpenCode's alone
          std::tuple{"--copilot-dir", &homes.copilotDirs, "COPILOT_HOME"}, std::tuple{"--qwen-dir", &homes.qwenDirs, "QWEN_DATA_DIR"},
          std::tuple{"--amp-dir", &homes.ampDirs, "AMP_DATA_DIR"}, std::tuple{"--goose-dir", &homes.gooseDirs, "GOOSE_PATH_ROOT"},
          std::tuple{"--kimi-dir", &homes.kimiDirs, "KIMI_SHARE_DIR"}, std::tuple{"--pi-dir", &homes.piDirs, "PI_CODING_AGENT_DIR"}}) {
        for (const auto& dir : *dirs) check(option, dir);
        const char* value = *variable ? std::getenv(variable) : nullptr;
        if (dirs->empty() && value && *value) check(std::string(variable) + "=", value);
    }
}

QuotaScanSummary scanAndPublish(QuotaScanOptions options, const GlobalOptions& globals, bool quiet) {
    const QuotaSyncConfiguration configuration = resolveConfiguration(globals);
    systemCalendar();  // a TZ the time-zone database does not know is refused before anything is read
    // A pinned clock is for looking: a snapshot dated by it would put a false reading in the
    // stores (faces make this machine's snapshot for that moment themselves).
    const std::optional<Date> publishAt = globals.now.empty() ? std::optional(resolveNow(globals)) : std::nullopt;
    LocalUsageScan::Result result;
    {
        ScanProgress progress{!quiet && !globals.json};
        options.progress = progress.callback();
        result = LocalUsageScan::run(configuration, options, publishAt);
    }
    if (result.snapshot) {
        if (const auto problem = QuotaAlerts::afterReadingChange(configuration, result.snapshot, *publishAt,
                                                                 resolveLanguage(globals))) {
            std::cerr << "gaugepoint: " << *problem << "\n";
        }
    }
    return result.summary;
}

void registerScanCommand(CLI::App& root, GlobalOptions& globals) {
    auto options = std::make_shared<ScanCommandOptions>();
    CLI::App* command = addGroup(root, "scan", "Import the local logs of the coding tools (Claude Code, Codex, Gemini, OpenCode, Copilot, Qwen, Amp, Goose, Kimi, pi)");
    options->homes.addOptions(*command);
    command->add_option("--capture", options->capture,
                        "How much message text to keep: metadataOnly (default: none), promptsOnly, promptsAndAnswers, "
                        "fullTranscript")
        ->option_text("MODE")
        ->check(Values::oneOf(enumerationNames<QuotaSessionContentCaptureMode>()));
    command->add_option("--claude-block-limit", options->claudeBlockLimit,
                        "Tokens of a Claude five-hour block that count as 100 %, or auto (estimated from past blocks): "
                        "without official readings from the status line, the active block shows as an estimated "
                        "window (kept for later scans; 0 removes it)")
        ->option_text("N|auto");
    command->add_flag("--quiet", options->quiet, "Print nothing unless the scan fails");
    command->add_flag("--verbose", options->verbose, "Name every skipped line and file");
    command->callback([options, &globals] { scan(*options, globals); });
}

}  // namespace gaugepoint::cli
