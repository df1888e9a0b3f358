// gaugepoint alerts status|set|reset|test|check: what fires before a limit, how it is tuned, and
// an evaluation on demand whose exit status scripts can act on.

#include "Commands.hpp"
#include "gaugepoint/platform/Text.hpp"
#include "gaugepoint/alerts/QuotaAlerts.hpp"

namespace gaugepoint::cli {
namespace {

struct AlertsOptions {
    std::string key;
    std::string value;
};

std::string periodText(const FiredAlert& f) {
    if (f.rule == "budget") return f.key.substr(f.key.rfind('|') + 1);
    return f.periodEnd > 0 ? "until " + formatISO8601(dateFromSeconds(f.periodEnd)) : "no reset";
}

void status(const GlobalOptions& globals) {
    const auto s = QuotaAlerts::status(resolveConfiguration(globals), resolveNow(globals), true);
    if (globals.json) return printJson(s);
    std::vector<std::vector<std::string>> rows{{"thresholds", thresholdListText(s.thresholds) + " %"}};
    for (const auto& [key, value] : s.settings) {
        if (key != "thresholds") rows.push_back({key, value});
    }
    std::string desktop = !s.desktopEnabled ? "off" : s.desktopReachable ? "reachable: " + s.desktop
                                                                            : "unreachable: " + s.desktop;
    if (s.quietNow) desktop += " (quiet hours now)";
    rows.push_back({"desktop", desktop});
    if (s.lastDesktop) rows.push_back({"last desktop", *s.lastDesktop});
    if (!s.baselined) rows.push_back({"state", "not evaluated yet: the first evaluation records what is already crossed"});
    std::string text = alignedRows(rows);
    text += s.currentPeriods.empty() ? "nothing fired in the current periods\n" : "fired in the current periods:\n";
    std::vector<std::vector<std::string>> fired;
    for (const auto& f : s.currentPeriods) {
        fired.push_back({"  " + f.key.substr(0, f.key.find('|')), f.providerID.empty() ? "-" : f.providerID + " " + f.windowID,
                         f.rule == "threshold" ? f.key.substr(f.key.rfind('|') + 1) + " %" : "", periodText(f),
                         f.silent ? "recorded at install" : f.desktop.value_or("told with a higher threshold")});
    }
    if (!fired.empty()) text += alignedRows(fired);
    writeOutput("-", text);
}

void set(const AlertsOptions& options, const GlobalOptions& globals) {
    try {
        AlertSettings::set(*resolveConfiguration(globals).userDefaults, options.key, options.value);
    } catch (const AlertSettingsError& e) {
        throw UsageError(e.what());
    }
    if (!globals.json) writeOutput("-", singleLine(options.key) + " = " + singleLine(options.value) + "\n");
    else printJson(AlertSettings::changed(*resolveConfiguration(globals).userDefaults));
}

void reset(const AlertsOptions& options, const GlobalOptions& globals) {
    try {
        AlertSettings::reset(*resolveConfiguration(globals).userDefaults, options.key);
    } catch (const AlertSettingsError& e) {
        throw UsageError(e.what());
    }
    if (!globals.json) writeOutput("-", options.key + " is back to its default\n");
    else printJson(AlertSettings::changed(*resolveConfiguration(globals).userDefaults));
}

struct TestResult {
    bool shown = false;
    std::optional<std::uint32_t> id;
    std::string problem;
};
BOOST_DESCRIBE_STRUCT(TestResult, (), (shown, id, problem))

void test(const GlobalOptions& globals) {
    const auto delivery = QuotaAlerts::test(resolveConfiguration(globals), resolveLanguage(globals));
    if (globals.json) return printJson(TestResult{delivery.shown(), delivery.id, delivery.problem});
    if (!delivery.shown()) throw Error("the sample notification was not shown: " + delivery.problem);
    writeOutput("-", "sample notification shown\n");
}

void check(const GlobalOptions& globals) {
    if (!globals.now.empty()) throw UsageError("alerts check evaluates the present and records what fires: leave out --now");
    const auto result =
        QuotaAlerts::evaluate(resolveConfiguration(globals), resolveNow(globals), resolveLanguage(globals));
    if (globals.json) {
        printJson(result);
    } else {
        std::string text;
        if (result.firstEvaluation) text += "first evaluation: what is already crossed is recorded without alerts\n";
        for (const auto& f : result.fired) {
            text += singleLine(f.title) + " · " + singleLine(f.body) + " (desktop: " + singleLine(f.desktop) + ")\n";
        }
        text += "highest window: " + numberText(result.highestUsedPercent) + " % used\n";
        writeOutput("-", text);
    }
    if (result.exitStatus() != 0) throw ExitStatus{result.exitStatus()};
}

}  // namespace

void registerAlertsCommand(CLI::App& root, GlobalOptions& globals) {
    auto options = std::make_shared<AlertsOptions>();
    CLI::App* group = addGroup(root, "alerts", "Alerts before a limit: thresholds, resets, pace, budgets");
    addGroup(*group, "status", "Settings, what fired in the current periods, whether the desktop is reachable")
        ->callback([&globals] { status(globals); });
    CLI::App* setVerb = addGroup(*group, "set",
                                 "Set thresholds[.PROVIDER[.KIND]] (e.g. 50,80,90,95 or off), budget.daily and "
                                 "budget.monthly (US dollars or off), quiet-hours (22:00-07:00 or off), desktop (on/off)");
    setVerb->add_option("key", options->key, "The setting")->required();
    setVerb->add_option("value", options->value, "Its value")->required();
    setVerb->callback([options, &globals] { set(*options, globals); });
    CLI::App* resetVerb = addGroup(*group, "reset", "Put a setting back to its default");
    resetVerb->add_option("key", options->key, "The setting")->required();
    resetVerb->callback([options, &globals] { reset(*options, globals); });
    addGroup(*group, "test", "Show one sample desktop notification")->callback([&globals] { test(globals); });
    addGroup(*group, "check", "Evaluate now; exit 10 when a window is at 90 % or more, 11 at 100 % or more")
        ->callback([&globals] { check(globals); });
}

}  // namespace gaugepoint::cli
