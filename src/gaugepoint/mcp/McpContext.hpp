#pragma once

// What every tool and resource of the MCP server reads: the stores of this user, the moment of
// the answer, the language of its texts, and the scan that keeps the stores recent. A scan runs
// before a read when the last one finished more than `scanIntervalSeconds` ago; a call waits for
// it at most `scanWaitSeconds` and otherwise answers from the stores as they are (the scan
// commits file by file, so they are never half-written) while the scan carries on.

#include <future>
#include <optional>
#include <string>

#include "gaugepoint/reports/LocalUsageScan.hpp"
#include "gaugepoint/model/QuotaSnapshot.hpp"
#include "gaugepoint/platform/LocalCalendar.hpp"
#include "gaugepoint/quota/QuotaReading.hpp"
#include "gaugepoint/stores/QuotaUsageEntryStore.hpp"

namespace gaugepoint::mcp {

struct McpOptions {
    QuotaSyncConfiguration configuration = QuotaSyncConfiguration::standard();
    std::optional<Date> pinnedNow;  // answers as of this moment; nothing dated by it is stored
    std::string language = "en";    // of the texts: Chinese when it begins with "zh"
    QuotaScanOptions scan;          // where the logs are
    bool scanBeforeReading = true;
    double scanIntervalSeconds = 60;
    double scanWaitSeconds = 5;
};

class McpContext {
public:
    explicit McpContext(McpOptions options);
    // Waits for a scan still running, so the process ends with the stores at rest.
    ~McpContext();
    McpContext(const McpContext&) = delete;
    McpContext& operator=(const McpContext&) = delete;

    // Scans first when one is due (see above). Never throws: a failed scan leaves the stores as
    // they were, and lastScanProblem() says why.
    void refresh();
    const std::optional<std::string>& lastScanProblem() const { return scanProblem_; }

    Date now() const;
    const std::string& language() const { return options_.language; }
    const QuotaSyncConfiguration& configuration() const { return options_.configuration; }
    QuotaFreshnessPolicy freshnessPolicy() const;
    // The system's time zone, Gregorian days.
    LocalCalendar calendar() const;
    QuotaUsageEntryStore usageStore() const;

    // The quota snapshot the faces show: the companion app's widget file when there is one,
    // else this machine's (as the last scan stored it, or made now when the clock is pinned or
    // none is stored); none before any reading.
    std::optional<QuotaSnapshot> quotaSnapshot() const;

private:
    void collectScan();  // takes the finished scan's outcome

    McpOptions options_;
    std::future<void> scan_;
    std::optional<std::string> scanProblem_;
};

}  // namespace gaugepoint::mcp
