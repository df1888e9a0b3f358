// gaugepoint watch: the live terminal view. Imports the logs in process as they grow, re-reads
// the stores when another process commits, and redraws; with --once, or without a terminal, the
// same view is printed once as plain text.

#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <iostream>

#include "Commands.hpp"
#include "LogScan.hpp"
#include "TextTable.hpp"
#include "gaugepoint/alerts/QuotaAlerts.hpp"
#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/reports/LocalUsageScan.hpp"
#include "gaugepoint/stores/StoreChangeStamp.hpp"
#include "gaugepoint/tui/WatchLayout.hpp"
#include "gaugepoint/tui/WatchLoop.hpp"

namespace gaugepoint::cli {
namespace {

constexpr int kPlainWidth = 100;  // --once into a pipe: the width of the README's screen

struct WatchOptions {
    LogHomesOptions homes;
    bool once = false;
    std::vector<std::string> providers;
    std::string timezone;
    bool timezoneGiven = false;
    std::int64_t intervalSeconds = 30;
};

// The zone the view starts in, and the process's TZ set to match, so that clock texts made
// through the C library (reset and run-out times) agree with the calendar's days.
class ZoneChoice {
public:
    explicit ZoneChoice(const WatchOptions& options) {
        if (const char* tz = std::getenv("TZ")) original_ = tz;
        if (!options.timezone.empty() || options.timezoneGiven) {
            if (!LocalCalendar::inTimeZone(options.timezone, LocalCalendar::Kind::gregorian)) {
                throw UsageError("--timezone takes a time zone such as UTC or Europe/Berlin (got \"" + options.timezone +
                                 "\"), e.g. --timezone UTC");
            }
            original_ = options.timezone;
        }
        apply(false);
    }

    LocalCalendar apply(bool utc) const {
        if (utc) ::setenv("TZ", "UTC", 1);
        else if (original_) ::setenv("TZ", original_->c_str(), 1);
        else ::unsetenv("TZ");
        ::tzset();
        if (utc) return *LocalCalendar::inTimeZone("UTC", LocalCalendar::Kind::gregorian);
        if (original_) {
            if (auto named = LocalCalendar::inTimeZone(*original_, LocalCalendar::Kind::gregorian)) return *named;
        }
        return systemCalendar();
    }

private:
    std::optional<std::string> original_;
};

// The import `scan` runs, with what it cannot do thrown as one message instead of printed,
// since stderr is the screen while the view is up.
void importLogs(const QuotaSyncConfiguration& configuration, const QuotaScanOptions& scanOptions,
                const GlobalOptions& globals, const std::string& language) {
    const std::optional<Date> publishAt = globals.now.empty() ? std::optional(resolveNow(globals)) : std::nullopt;
    const auto result = LocalUsageScan::run(configuration, scanOptions, publishAt);
    if (result.snapshot) {
        if (const auto problem = QuotaAlerts::afterReadingChange(configuration, result.snapshot, *publishAt, language)) {
            throw Error(*problem);
        }
    }
}

// The tools whose logs are imported, in their order.
std::vector<tui::WatchTool> watchedTools() {
    std::vector<tui::WatchTool> tools;
    for (const auto& tool : codingTools()) tools.push_back({tool->provider().id, tool->provider().displayName});
    return tools;
}

tui::WatchModel buildModel(const QuotaSyncConfiguration& configuration, const tui::WatchChoices& choices,
                           const ZoneChoice& zone, const GlobalOptions& globals) {
    const LocalCalendar calendar = zone.apply(choices.utc);
    const Date now = resolveNow(globals);
    tui::WatchInputs inputs;
    inputs.tools = watchedTools();
    inputs.configuration = &configuration;
    inputs.calendar = &calendar;
    inputs.now = now;
    inputs.language = choices.language;
    inputs.providerFilter = choices.provider;
    inputs.snapshot = tui::thisMachineSnapshot(configuration, now, calendar, !globals.now.empty());
    return tui::makeWatchModel(inputs);
}

void run(const WatchOptions& options, const GlobalOptions& globals) {
    resolveNow(globals);  // a malformed --now is a usage error before any file is touched
    const ZoneChoice zone{options};
    const auto configuration = resolveConfiguration(globals);
    QuotaScanOptions scanOptions;
    options.homes.applyTo(scanOptions);
    tui::WatchChoices choices;
    choices.language = resolveLanguage(globals);
    if (options.providers.size() == 1) choices.provider = options.providers.front();

    const bool terminal = ::isatty(STDIN_FILENO) == 1 && ::isatty(STDOUT_FILENO) == 1;
    if (options.once || !terminal || globals.json) {
        if (globals.json) throw UsageError("watch has no JSON form: use `gaugepoint report --json` or `widget --json`");
        warnAboutMissingHomes(options.homes);
        try {
            importLogs(configuration, scanOptions, globals, choices.language);
        } catch (const Error& e) {
            std::cerr << "gaugepoint: " << e.what() << "\n";
        }
        const auto width = OutputStyle::current().width.value_or(kPlainWidth);
        writeOutput("-", tui::watchPlainText(buildModel(configuration, choices, zone, globals), static_cast<int>(width)));
        return;
    }
    warnAboutMissingHomes(options.homes);
    tui::WatchLoopOptions loop;
    loop.logFolders = searchedHomes(scanOptions);
    loop.refresh = std::chrono::seconds(options.intervalSeconds);
    loop.choices = choices;
    if (options.providers.empty()) {
        for (const auto& tool : watchedTools()) loop.providers.push_back(tool.id);
    } else {
        loop.providers = options.providers;
    }
    const auto stores = configuration.resolvedAppGroupDirectory();
    tui::WatchHooks hooks;
    hooks.rescan = [&] { importLogs(configuration, scanOptions, globals, choices.language); };
    hooks.build = [&](const tui::WatchChoices& chosen) { return buildModel(configuration, chosen, zone, globals); };
    hooks.storeStamp = [&] { return stores ? storeChangeStamp(*stores) : 0; };
    tui::runWatchLoop(loop, hooks);
}

}  // namespace

void registerWatchCommand(CLI::App& root, GlobalOptions& globals) {
    auto options = std::make_shared<WatchOptions>();
    CLI::App* command = addGroup(root, "watch",
                                 "A live terminal view of quota, five-hour blocks, today's spend and active sessions");
    command->add_flag("--once", options->once,
                      "Print the view once as plain text and exit (also what happens without a terminal)");
    command->add_option("--provider", options->providers,
                        "Only this tool (repeatable; the p key then cycles through those named): claude, codex, gemini")
        ->option_text("ID");
    command->add_option("-z,--timezone", options->timezone,
                        "The time zone of days and clock times, e.g. UTC or Europe/Berlin (default: the system's; the z "
                        "key switches to UTC and back)")
        ->option_text("ZONE")
        ->each([options](const std::string&) { options->timezoneGiven = true; });
    command->add_option("--interval", options->intervalSeconds,
                        "Seconds between refreshes of the clock-bound texts when nothing changes (default 30); also "
                        "the rescan period where folders cannot be watched")
        ->check(Values::wholeNumber(1, "30", 3600))
        ->option_text("S");
    options->homes.addOptions(*command);
    command->callback([options, &globals] { run(*options, globals); });
}

}  // namespace gaugepoint::cli
