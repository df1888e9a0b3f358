#include "gaugepoint/alerts/AlertSettings.hpp"

#include <boost/describe/enum_from_string.hpp>
#include <boost/describe/enum_to_string.hpp>
#include <boost/json.hpp>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <ctime>

namespace gaugepoint {
namespace {

constexpr std::string_view kThresholds = "thresholds";
constexpr std::string_view kDailyBudget = "budget.daily";
constexpr std::string_view kMonthlyBudget = "budget.monthly";
constexpr std::string_view kQuietHours = "quiet-hours";
constexpr std::string_view kDesktop = "desktop";

std::string shortNumber(double value) {
    char text[32];
    const auto end = std::to_chars(text, text + sizeof text, value).ptr;
    return {text, end};
}

std::optional<double> parseNumber(std::string_view text) {
    while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
    while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || error != std::errc() || end != text.data() + text.size() || !std::isfinite(value)) return {};
    return value;
}

bool isOff(std::string_view text) { return text == "off" || text == "none"; }

// "thresholds", "thresholds.claude" or "thresholds.claude.rollingSession": the override name
// ("" for the default list); none for any other key.
std::optional<std::string> thresholdScope(std::string_view key) {
    if (key == kThresholds) return std::string();
    if (!key.starts_with("thresholds.")) return {};
    const std::string_view scope = key.substr(kThresholds.size() + 1);
    const auto dot = scope.find('.');
    const std::string_view provider = scope.substr(0, dot);
    const bool providerOK = !provider.empty() && std::all_of(provider.begin(), provider.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
    });
    if (!providerOK) return {};
    if (dot != std::string_view::npos) {
        QuotaWindowSemantic kind{};
        const std::string name(scope.substr(dot + 1));
        if (!boost::describe::enum_from_string(name.c_str(), kind)) {
            throw AlertSettingsError("unknown window kind \"" + name +
                                     "\": use rollingSession, fixedCycle, usageCategory, perModel, creditsBalance or generic");
        }
    }
    return std::string(scope);
}

// Percents in (0, 100], sorted and without repeats; "off" is the empty list.
std::vector<double> parseThresholds(std::string_view text) {
    std::vector<double> list;
    if (isOff(text)) return list;
    for (std::size_t start = 0; start <= text.size();) {
        const auto comma = std::min(text.find(',', start), text.size());
        const auto number = parseNumber(text.substr(start, comma - start));
        if (!number || *number <= 0 || *number > 100) {
            throw AlertSettingsError("thresholds are percents above 0 and at most 100 separated by commas, e.g. "
                                     "50,80,90,95 (or off); got \"" + std::string(text) + "\"");
        }
        list.push_back(*number);
        start = comma + 1;
    }
    std::sort(list.begin(), list.end());
    list.erase(std::unique(list.begin(), list.end()), list.end());
    return list;
}

std::vector<double> thresholdsOf(const boost::json::value& value) {
    std::vector<double> list;
    if (const auto* array = value.if_array()) {
        for (const auto& item : *array) {
            if (item.is_number()) list.push_back(item.to_number<double>());
        }
    }
    std::sort(list.begin(), list.end());
    return list;
}

boost::json::object storedObject(const UserDefaults& defaults) {
    const auto value = defaults.value(AlertSettings::defaultsKey);
    if (value && value->is_object()) return value->as_object();
    return {};
}

// The stored form of `value` for `key`; a null value means "back to the default".
boost::json::value storedValue(std::string_view key, std::string_view value) {
    if (thresholdScope(key)) {
        boost::json::array array;
        for (const double t : parseThresholds(value)) array.emplace_back(t);
        return array;
    }
    if (key == kDailyBudget || key == kMonthlyBudget) {
        if (isOff(value)) return nullptr;
        const auto amount = parseNumber(value);
        if (!amount || *amount <= 0) {
            throw AlertSettingsError(std::string(key) + " is an amount of US dollars above 0, e.g. 20 (or off); got \"" +
                                     std::string(value) + "\"");
        }
        return *amount;
    }
    if (key == kQuietHours) {
        if (isOff(value)) return nullptr;
        const auto hours = QuietHours::parse(value);
        if (!hours) {
            throw AlertSettingsError("quiet-hours is a span of local time, e.g. 22:00-07:00 (or off); got \"" +
                                     std::string(value) + "\"");
        }
        return boost::json::string(hours->toString());
    }
    if (key == kDesktop) {
        if (value == "on" || value == "true") return true;
        if (value == "off" || value == "false") return false;
        throw AlertSettingsError("desktop is on or off; got \"" + std::string(value) + "\"");
    }
    throw AlertSettingsError("unknown alert setting \"" + std::string(key) +
                             "\": use thresholds, thresholds.PROVIDER, thresholds.PROVIDER.KIND, budget.daily, "
                             "budget.monthly, quiet-hours or desktop");
}

std::string displayValue(const boost::json::value& value) {
    if (value.is_array()) {
        const auto list = thresholdsOf(value);
        return list.empty() ? "off" : thresholdListText(list);
    }
    if (value.is_bool()) return value.as_bool() ? "on" : "off";
    if (value.is_number()) return shortNumber(value.to_number<double>());
    if (value.is_string()) return std::string(value.as_string());
    return boost::json::serialize(value);
}

}  // namespace

std::string thresholdListText(const std::vector<double>& thresholds) {
    std::string text;
    for (const double t : thresholds) text += (text.empty() ? "" : ",") + shortNumber(t);
    return text;
}

std::optional<QuietHours> QuietHours::parse(std::string_view text) {
    int h1 = 0, m1 = 0, h2 = 0, m2 = 0, consumed = 0;
    const std::string copy(text);
    if (std::sscanf(copy.c_str(), "%2d:%2d-%2d:%2d%n", &h1, &m1, &h2, &m2, &consumed) != 4 ||
        consumed != int(copy.size())) {
        return {};
    }
    const auto valid = [](int h, int m) { return h >= 0 && h < 24 && m >= 0 && m < 60; };
    if (!valid(h1, m1) || !valid(h2, m2)) return {};
    return QuietHours{h1 * 60 + m1, h2 * 60 + m2};
}

std::string QuietHours::toString() const {
    char text[48];
    std::snprintf(text, sizeof text, "%02d:%02d-%02d:%02d", startMinute / 60, startMinute % 60, endMinute / 60,
                  endMinute % 60);
    return text;
}

bool QuietHours::contains(Date now) const {
    const std::time_t seconds = std::time_t(std::floor(secondsSince1970(now)));
    std::tm local{};
    localtime_r(&seconds, &local);
    const int minute = local.tm_hour * 60 + local.tm_min;
    if (startMinute == endMinute) return true;
    if (startMinute < endMinute) return minute >= startMinute && minute < endMinute;
    return minute >= startMinute || minute < endMinute;
}

const std::vector<double>& AlertSettings::thresholdsFor(std::string_view providerID, QuotaWindowSemantic kind) const {
    const std::string provider(providerID);
    const char* kindName = boost::describe::enum_to_string(kind, "generic");
    if (const auto it = thresholdOverrides.find(provider + "." + kindName); it != thresholdOverrides.end()) return it->second;
    if (const auto it = thresholdOverrides.find(provider); it != thresholdOverrides.end()) return it->second;
    return thresholds;
}

AlertSettings AlertSettings::load(const UserDefaults& defaults) {
    AlertSettings settings;
    for (const auto& [key, value] : storedObject(defaults)) {
        const std::string_view name = key;
        if (name == kThresholds) {
            settings.thresholds = thresholdsOf(value);
        } else if (name.starts_with("thresholds.")) {
            settings.thresholdOverrides[std::string(name.substr(kThresholds.size() + 1))] = thresholdsOf(value);
        } else if (name == kDailyBudget && value.is_number()) {
            settings.dailyBudgetUSD = value.to_number<double>();
        } else if (name == kMonthlyBudget && value.is_number()) {
            settings.monthlyBudgetUSD = value.to_number<double>();
        } else if (name == kQuietHours && value.is_string()) {
            settings.quietHours = QuietHours::parse(value.as_string());
        } else if (name == kDesktop && value.is_bool()) {
            settings.desktop = value.as_bool();
        }
    }
    return settings;
}

void AlertSettings::set(UserDefaults& defaults, std::string_view key, std::string_view value) {
    auto object = storedObject(defaults);
    const auto stored = storedValue(key, value);
    if (stored.is_null()) {
        object.erase(key);
    } else {
        object[key] = stored;
    }
    defaults.setValue(defaultsKey, object);
}

void AlertSettings::reset(UserDefaults& defaults, std::string_view key) {
    storedValue(key, key == kDesktop ? "on" : "off");  // rejects unknown keys
    auto object = storedObject(defaults);
    object.erase(key);
    defaults.setValue(defaultsKey, object);
}

std::map<std::string, std::string> AlertSettings::changed(const UserDefaults& defaults) {
    std::map<std::string, std::string> result;
    for (const auto& [key, value] : storedObject(defaults)) result[std::string(key)] = displayValue(value);
    return result;
}

}  // namespace gaugepoint
