#pragma once

// The sample log tree in a scratch copy, scans of it, and its figures as the stores hold them.

#include <boost/json.hpp>

#include <filesystem>
#include <map>
#include <set>
#include <string>

#include "StoreTestSupport.hpp"
#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/importers/QuotaLogScanner.hpp"
#include "gaugepoint/platform/LocalCalendar.hpp"
#include "gaugepoint/stores/QuotaUsageEntryStore.hpp"

namespace gaugepoint::testing {

// A scratch copy of the sample tree ("claude", "codex", "gemini" homes) and a store directory.
class LogTree {
public:
    // A tree whose scans read the homes of `readTools` only.
    explicit LogTree(std::vector<std::string> readTools = {"claude", "codex", "gemini"}) : tools(std::move(readTools)) {
        std::filesystem::copy(testData("logs"), dir / "homes", std::filesystem::copy_options::recursive);
        configuration.appGroupDirectory = dir / "group";
        configuration.sourceID = "test-machine";
        configuration.sourceName = "Test";
        configuration.clock = Clock::fixedAt(at("2026-11-21T12:00:00Z"));
    }

    std::filesystem::path home(const char* tool) const { return dir / "homes" / tool; }

    QuotaScanOptions options(QuotaSessionContentCaptureMode capture = QuotaSessionContentCaptureMode::metadataOnly) const {
        QuotaScanOptions o;
        // Tools not in `tools` read no home at all (never the machine's own).
        for (const auto& tool : codingTools()) o.homes[tool->provider().id] = {};
        for (const auto& tool : tools) o.homes[tool] = {home(tool.c_str())};
        if (o.homes.contains("kimi") && !o.homes["kimi"].empty()) o.homes["kimi"].push_back(home("kimi-code"));
        o.capture = capture;
        return o;
    }
    QuotaScanSummary scan(QuotaSessionContentCaptureMode capture = QuotaSessionContentCaptureMode::metadataOnly) const {
        return QuotaLogScanner{configuration}.scan(options(capture));
    }
    QuotaUsageEntryStore usage() const { return QuotaUsageEntryStore{QuotaSessionFileRegistry{configuration}}; }

    std::vector<std::string> tools;
    ScratchDirectory dir;
    QuotaSyncConfiguration configuration;
};

// One day's counts as the reference lists them: input, output, cache write, cache read, models.
struct DayTotals {
    std::int64_t input = 0, output = 0, cacheWrite = 0, cacheRead = 0;
    std::set<std::string> models;
    bool operator==(const DayTotals&) const = default;
};

inline std::map<std::string, DayTotals> dailyTotals(const QuotaUsageEntryStore& usage, const std::string& provider,
                                                    const LocalCalendar& calendar) {
    std::map<std::string, DayTotals> days;
    for (const auto& e : usage.countedEntries(provider)) {
        auto& day = days[calendar.dayKey(e.timestamp)];
        day.input += e.tokens.inputTokens;
        day.output += e.tokens.outputTokens;
        day.cacheWrite += e.tokens.cacheWriteTokens;
        day.cacheRead += e.tokens.cacheReadTokens;
        day.models.insert(e.model);
    }
    return days;
}

inline boost::json::value expectedDocument(const char* name) {
    return boost::json::parse(readFile(testData(std::string("logs/") + name)));
}

}  // namespace gaugepoint::testing
