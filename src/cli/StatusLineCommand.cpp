// gaugepoint statusline: the command Claude Code runs for its status line. Reads the JSON object
// Claude Code writes on standard input, keeps the official Claude quota it carries, and prints
// one line. It must never leave Claude Code's line blank: whatever fails, it prints the best
// line it can, says what went wrong on stderr, and exits 0.

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <iostream>

#include "Commands.hpp"
#include "gaugepoint/alerts/QuotaAlerts.hpp"
#include "gaugepoint/platform/LocalCalendar.hpp"
#include "gaugepoint/platform/Text.hpp"
#include "gaugepoint/quota/ClaudeStatusLineRecorder.hpp"
#include "gaugepoint/quota/ClaudeStatusLineView.hpp"
#include "gaugepoint/reports/LocalQuotaSnapshot.hpp"
#include "gaugepoint/reports/UsagePeriods.hpp"
#include "gaugepoint/stores/SQLiteConnectionHolder.hpp"

namespace gaugepoint::cli {
namespace {

// A store busy longer than this drops the reading: the next one comes within seconds.
constexpr std::chrono::milliseconds kLockBudget{100};
constexpr std::uint64_t kMaxInputBytes = 1 << 20;  // Claude Code sends about 1 KB

struct StatusLineOptions {
    std::string format;  // empty: ansi on a terminal unless NO_COLOR, else plain
    std::string templateText;
};

void warn(const std::string& message) { std::cerr << "gaugepoint statusline: " << singleLine(message) << "\n"; }

// Standard input within the limit; nothing when it is a terminal (a person trying the command).
std::string readStandardInput() {
    if (::isatty(STDIN_FILENO) == 1) return {};
    return readInput("-", InputLimit{kMaxInputBytes, "the status-line input", ""});
}

ClaudeStatusLineText::Style styleFor(const StatusLineOptions& options) {
    if (options.format == "ansi") return ClaudeStatusLineText::Style::ansi;
    if (options.format == "plain") return ClaudeStatusLineText::Style::plain;
    const char* noColor = std::getenv("NO_COLOR");
    const bool colour = ::isatty(STDOUT_FILENO) == 1 && !(noColor && *noColor);
    return colour ? ClaudeStatusLineText::Style::ansi : ClaudeStatusLineText::Style::plain;
}

// Today's cost of every tool in the local zone; none when the stores cannot say.
std::optional<double> todayCost(const QuotaSyncConfiguration& configuration, Date now) {
    const auto calendar = LocalCalendar::current(LocalCalendar::Kind::gregorian);
    const QuotaUsageEntryStore store{QuotaSessionFileRegistry{configuration}};
    UsageReportFilter today;
    today.since = calendar.dayKey(now);
    return usageOfDays(store, calendar, today).totalCost;
}

// Claude's provider in this machine's snapshot, as just recorded or as stored.
std::optional<QuotaSnapshot> thisMachine(const QuotaSyncConfiguration& configuration, const ClaudeStatusLineInput& input,
                                         Date now, bool record) {
    if (record && input.hasRateLimits()) {
        try {
            if (auto recorded = ClaudeStatusLineRecorder::record(configuration, input, now)) return recorded->snapshot;
        } catch (const std::exception& e) {
            warn(std::string("the quota reading was not stored: ") + e.what());
        }
    }
    return LocalQuotaSnapshot::latest(configuration);
}

const ProviderQuota* claudeOf(const std::optional<QuotaSnapshot>& snapshot) {
    if (!snapshot) return nullptr;
    for (const auto& provider : snapshot->providers) {
        if (provider.id == "claude") return &provider;
    }
    return nullptr;
}

void run(const StatusLineOptions& options, const GlobalOptions& globals) {
    SQLiteConnectionHolder::setBusyTimeout(kLockBudget);
    const std::string language = resolveLanguage(globals);
    std::vector<std::string> problems;
    ClaudeStatusLineInput input;
    try {
        input = ClaudeStatusLineInput::parse(readStandardInput(), problems);
    } catch (const std::exception& e) {
        problems.emplace_back(e.what());
    }
    for (const auto& problem : problems) warn(problem);
    const auto style = styleFor(options);
    try {
        const Date now = resolveNow(globals);
        const auto configuration = resolveConfiguration(globals);
        // A pinned clock is for looking; a reading dated by it would be false.
        const auto snapshot = thisMachine(configuration, input, now, globals.now.empty());
        if (globals.now.empty()) {
            if (const auto problem = QuotaAlerts::afterReadingChange(configuration, snapshot, now, language)) warn(*problem);
        }
        auto view = ClaudeStatusLineView::make(input, claudeOf(snapshot), snapshot ? snapshot->generatedAt : now, now,
                                               language, QuotaFreshnessPolicy::fromDefaults(*configuration.userDefaults));
        try {
            view.todayCostUSD = todayCost(configuration, now);
        } catch (const std::exception& e) {
            warn(std::string("today's cost is unknown: ") + e.what());
        }
        if (options.format == "json") return printJson(view);
        std::cout << ClaudeStatusLineText::line(view, style, options.templateText) << "\n";
    } catch (const std::exception& e) {
        warn(e.what());
        std::cout << ClaudeStatusLineText::fallbackLine(input, language) << "\n";
    }
}

}  // namespace

void registerStatusLineCommand(CLI::App& root, GlobalOptions& globals) {
    auto options = std::make_shared<StatusLineOptions>();
    CLI::App* command = addGroup(root, "statusline",
                                 "Claude Code's status line: reads its JSON on stdin, keeps Claude's official quota, "
                                 "prints one line");
    command->add_option("--format", options->format,
                        "ansi (colours), plain or json (default: ansi on a terminal unless NO_COLOR is set, else plain)")
        ->check(Values::oneOf({"ansi", "plain", "json"}))
        ->option_text("FORMAT");
    std::string names;
    for (const auto name : ClaudeStatusLineText::partNames()) names += (names.empty() ? "{" : ", {") + std::string(name) + "}";
    command->add_option("--template", options->templateText,
                        "The line with placeholders, e.g. '{model} {five_hour} {today_cost}'; they are " + names)
        ->option_text("TEXT");
    command->callback([options, &globals] { run(*options, globals); });
}

}  // namespace gaugepoint::cli
