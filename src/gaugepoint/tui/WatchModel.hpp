#pragma once

// What the live terminal view shows, gathered from the stores in one pass: this machine's
// quota cards (windows as of now, with pace and origin), the active five-hour block of each
// tool, today's spend with the daily cost of the last 14 days, the sessions of the last hour,
// and the cards of the user's other machines. The layout (WatchLayout) only arranges it.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "gaugepoint/model/QuotaSnapshot.hpp"
#include "gaugepoint/platform/LocalCalendar.hpp"
#include "gaugepoint/platform/QuotaSyncConfiguration.hpp"
#include "gaugepoint/quota/QuotaReading.hpp"
#include "gaugepoint/reports/UsageBlocks.hpp"

namespace gaugepoint::tui {

struct WatchWindow {
    std::string label;  // "Session 5h", localized
    QuotaWindowNow now;
};

struct WatchProviderCard {
    std::string providerID;
    std::string name;
    QuotaProviderNow reading;
    std::vector<WatchWindow> windows;  // in the provider's stored order
};

struct WatchBlock {
    std::string providerID;
    std::string name;
    UsageBlock block;  // the active one
};

struct WatchToolDay {
    std::string providerID;
    std::string name;
    std::int64_t tokens = 0;
    double cost = 0;  // US dollars
};

struct WatchSession {
    std::string providerID;
    std::string project;  // the project folder's last component; "-" when unknown
    Date lastActivity;
    std::int64_t tokens = 0;
    double cost = 0;
};

struct WatchMachine {
    std::string name;
    double ageSeconds = 0;                    // since its snapshot was made
    std::vector<WatchProviderCard> providers;  // those with windows
};

struct WatchModel {
    Date now;
    std::string timeZoneID;
    std::string language;
    std::optional<std::string> providerFilter;  // none: every tool
    std::vector<WatchProviderCard> cards;        // providers with windows
    std::vector<WatchBlock> blocks;              // tools with an active block
    std::vector<WatchToolDay> today;             // every tool with usage today
    std::vector<double> dailyCost;               // the last 14 days, oldest first, today last
    std::vector<WatchSession> sessions;          // active in the last hour, newest first
    std::vector<WatchMachine> machines;          // other sources in the snapshot store
    std::vector<std::string> problems;           // what could not be read, one line each
};

// A coding tool whose logs are imported: its provider id and the name shown.
struct WatchTool {
    std::string id;
    std::string name;
};

// Where the model's figures come from: the stores of `configuration` at `now`, days in the zone
// of `calendar` (Gregorian), for `tools`. `snapshot` is this machine's quota snapshot (none
// before the first scan).
struct WatchInputs {
    std::vector<WatchTool> tools;
    const QuotaSyncConfiguration* configuration = nullptr;
    const LocalCalendar* calendar = nullptr;
    Date now;
    std::string language;
    std::optional<std::string> providerFilter;
    std::optional<QuotaSnapshot> snapshot;
};

// Never throws for a store that cannot be read: the panel stays empty and `problems` says why.
WatchModel makeWatchModel(const WatchInputs& inputs);

// This machine's snapshot as faces show it: the one the last scan stored, or, with a pinned
// clock (or none stored), one made now from what was imported; none before any import.
std::optional<QuotaSnapshot> thisMachineSnapshot(const QuotaSyncConfiguration& configuration, Date now,
                                                 const LocalCalendar& calendar, bool clockPinned);

}  // namespace gaugepoint::tui
