#pragma once

// The sibling menu-bar app's own widget snapshot document, as it writes it.

#include <boost/describe/class.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "gaugepoint/platform/Date.hpp"
#include "gaugepoint/platform/Json.hpp"

namespace gaugepoint::tallybar {

struct RawWindow {
    std::optional<std::string> label;
    std::optional<std::string> modelSlug;
    double usedPercent = 0;
    std::optional<Date> resetsAt;
    std::optional<std::int64_t> windowMinutes;
    std::optional<std::string> resetDescription;
};
BOOST_DESCRIBE_STRUCT(RawWindow, (), (label, modelSlug, usedPercent, resetsAt, windowMinutes, resetDescription))

struct RawTokenUsage {
    std::optional<double> sessionCostUSD;
    std::optional<std::int64_t> sessionTokens;
    std::optional<double> last30DaysCostUSD;
    std::optional<std::int64_t> last30DaysTokens;
};
BOOST_DESCRIBE_STRUCT(RawTokenUsage, (), (sessionCostUSD, sessionTokens, last30DaysCostUSD, last30DaysTokens))

// The sibling has written the cost under three spellings; see its Coding below.
struct RawDailyUsage {
    std::string dayKey;
    double costUSD = 0;
    std::int64_t totalTokens = 0;
};

struct RawProvider {
    std::string provider;
    std::optional<std::string> model;
    std::optional<std::string> modelDisplayName;
    std::optional<Date> updatedAt;
    std::optional<double> creditsRemaining;
    std::optional<RawWindow> primary;
    std::optional<RawWindow> secondary;
    std::optional<RawWindow> tertiary;
    std::optional<RawTokenUsage> tokenUsage;
    std::optional<std::vector<RawDailyUsage>> dailyUsage;
};
BOOST_DESCRIBE_STRUCT(RawProvider, (),
                      (provider, model, modelDisplayName, updatedAt, creditsRemaining, primary, secondary, tertiary,
                       tokenUsage, dailyUsage))

struct RawSnapshot {
    std::vector<RawProvider> entries;
    Date generatedAt;
};
BOOST_DESCRIBE_STRUCT(RawSnapshot, (), (entries, generatedAt))

}  // namespace gaugepoint::tallybar

namespace gaugepoint::json {

// A daily entry's cost is read from "costUSD", else "costUsd", else "cost_usd" (the first that is
// present and not null); an entry with none of them fails like any missing required key.
template <>
struct Coding<tallybar::RawDailyUsage> {
    static void write(JsonWriter& w, const tallybar::RawDailyUsage& v);
    static tallybar::RawDailyUsage read(const boost::json::value& v, const Path& path);
};

}  // namespace gaugepoint::json
