#pragma once

// What the user has tuned about alerts, kept as one JSON object under the user default
// "alerts.settings" whose keys are the names `alerts set` takes:
//   thresholds                  percents that fire when a window crosses them upward ("50,80,90,95")
//   thresholds.PROVIDER         the same for one provider ("thresholds.claude")
//   thresholds.PROVIDER.KIND    for one kind of window of a provider ("thresholds.codex.rollingSession")
//   budget.daily, budget.monthly  spending in US dollars over all tools (off unless set)
//   quiet-hours                 "22:00-07:00" local time: the desktop stays silent, the inbox is written
//   desktop                     on or off

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "gaugepoint/model/QuotaWindow.hpp"
#include "gaugepoint/platform/Error.hpp"
#include "gaugepoint/platform/UserDefaults.hpp"

namespace gaugepoint {

// A key or value that `alerts set` cannot take; what() says which and what would be right.
class AlertSettingsError : public Error {
public:
    using Error::Error;
};

// A daily span of local time; it may wrap past midnight ("22:00-07:00").
struct QuietHours {
    int startMinute = 0;  // minutes after local midnight, 0...1439
    int endMinute = 0;    // exclusive; equal to start means the whole day

    // "HH:MM-HH:MM"; none when the text is not one.
    static std::optional<QuietHours> parse(std::string_view text);
    std::string toString() const;
    // Whether `now` falls in the span, in the local time zone.
    bool contains(Date now) const;

    bool operator==(const QuietHours&) const = default;
};

struct AlertSettings {
    static constexpr std::string_view defaultsKey = "alerts.settings";

    std::vector<double> thresholds{50, 80, 90, 95};               // ascending
    std::map<std::string, std::vector<double>> thresholdOverrides;  // "claude", "claude.rollingSession"
    std::optional<double> dailyBudgetUSD;
    std::optional<double> monthlyBudgetUSD;
    std::optional<QuietHours> quietHours;
    bool desktop = true;

    // The thresholds of one window: the provider-and-kind override, else the provider's, else the default.
    const std::vector<double>& thresholdsFor(std::string_view providerID, QuotaWindowSemantic kind) const;

    // The settings in `defaults`; a value that does not read keeps its default.
    static AlertSettings load(const UserDefaults& defaults);
    // Sets one key from its text form ("50,80,95", "12.5", "off", "22:00-07:00", "on").
    // Throws AlertSettingsError for an unknown key or a value it cannot take, and the defaults' errors.
    static void set(UserDefaults& defaults, std::string_view key, std::string_view value);
    // Puts one key back to its default. Throws as set().
    static void reset(UserDefaults& defaults, std::string_view key);
    // Every key that is not at its default, with its text form, in key order.
    static std::map<std::string, std::string> changed(const UserDefaults& defaults);
};

// "50,80,90,95": percents as the settings show them.
std::string thresholdListText(const std::vector<double>& thresholds);

}  // namespace gaugepoint
