// gaugepoint scan: import the local logs of Claude Code, Codex CLI and Gemini CLI.

#include <algorithm>
#include <cmath>

#include "Commands.hpp"
#include "LogScan.hpp"
#include "ScanProgress.hpp"
#include "SyncServer.hpp"
#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/reports/LocalQuotaSnapshot.hpp"

namespace gaugepoint::cli {
namespace {

struct ScanCommandOptions {
    LogHomesOptions homes;
    std::string capture = "metadataOnly";
    std::optional<std::int64_t> claudeBlockLimit;
    bool quiet = false;
    bool verbose = false;
};

// Whether two JSON documents are the same but for the last bits of their numbers: sums of
// the same costs taken in another order (stored sums, or summed from the entries) differ there.
bool nearlyEqual(const boost::json::value& a, const boost::json::value& b) {
    if (a.is_number() && b.is_number()) {
        const double x = a.to_number<double>(), y = b.to_number<double>();
        return std::fabs(x - y) <= 1e-9 * std::max({1.0, std::fabs(x), std::fabs(y)});
    }
    if (a.kind() != b.kind()) return false;
    if (a.is_object()) {
        const auto &x = a.get_object(), &y = b.get_object();
        if (x.size() != y.size()) return false;
        for (const auto& [key, value] : x) {
            const auto* other = y.if_contains(key);
            if (!other || !nearlyEqual(value, *other)) return false;
        }
        return true;
    }
    if (a.is_array()) {
        const auto &x = a.get_array(), &y = b.get_array();
        if (x.size() != y.size()) return false;
        for (std::size_t i = 0; i < x.size(); ++i) {
            if (!nearlyEqual(x[i], y[i])) return false;
        }
        return true;
    }
    return a == b;
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
    if (options.claudeBlockLimit) {
        LocalQuotaSnapshot::setClaudeBlockTokenLimit(*resolveConfiguration(globals).userDefaults,
                                                     *options.claudeBlockLimit);
    }
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
            text += "  " + p.path + (p.offset ? " at byte " + std::to_string(*p.offset) : "") + ": " + p.reason + "\n";
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
}

void LogHomesOptions::applyTo(QuotaScanOptions& options) const {
    const auto homes = [&](const char* provider, const std::vector<std::string>& dirs) {
        if (!dirs.empty()) options.homes[provider] = {dirs.begin(), dirs.end()};
    };
    homes("claude", claudeDirs);
    homes("codex", codexDirs);
    homes("gemini", geminiDirs);
}

QuotaScanSummary scanAndPublish(QuotaScanOptions options, const GlobalOptions& globals, bool quiet) {
    const QuotaSyncConfiguration configuration = resolveConfiguration(globals);
    QuotaScanSummary summary;
    {
        ScanProgress progress{!quiet && !globals.json};
        options.progress = progress.callback();
        summary = QuotaLogScanner{configuration}.scan(options);
    }
    const auto snapshot = LocalQuotaSnapshot::make(configuration, resolveNow(globals),
                                                   LocalCalendar::current(LocalCalendar::Kind::gregorian));
    // A snapshot equal to the stored one but for its time is not stored again: a scan that
    // found nothing new writes nothing.
    if (auto stored = LocalQuotaSnapshot::latest(configuration)) {
        stored->generatedAt = snapshot.generatedAt;
        if (nearlyEqual(json::parse(json::encode(*stored)), json::parse(json::encode(snapshot)))) return summary;
    }
    LocalQuotaSnapshot::publish(snapshot, configuration);
    return summary;
}

void registerScanCommand(CLI::App& root, GlobalOptions& globals) {
    auto options = std::make_shared<ScanCommandOptions>();
    CLI::App* command = addGroup(root, "scan", "Import the local logs of Claude Code, Codex CLI and Gemini CLI");
    options->homes.addOptions(*command);
    command->add_option("--capture", options->capture,
                        "How much message text to keep: metadataOnly (default: none), promptsOnly, promptsAndAnswers, "
                        "fullTranscript")
        ->option_text("MODE")
        ->check(CLI::IsMember(enumerationNames<QuotaSessionContentCaptureMode>()));
    command->add_option("--claude-block-limit", options->claudeBlockLimit,
                        "Tokens of a Claude five-hour block that count as 100 %: the widget then shows the active "
                        "block as a window (kept for later scans; 0 removes it)")
        ->option_text("N")
        ->check(CLI::NonNegativeNumber);
    command->add_flag("--quiet", options->quiet, "Print nothing unless the scan fails");
    command->add_flag("--verbose", options->verbose, "Name every skipped line and file");
    command->callback([options, &globals] { scan(*options, globals); });
}

}  // namespace gaugepoint::cli
