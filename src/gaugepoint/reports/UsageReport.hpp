#pragma once

// One usage report of any kind, made the same way for every face (`gaugepoint report`, the MCP
// server): the rows over the stored usage, and the JSON document scripts read.

#include <boost/describe/enum.hpp>

#include <string>
#include <vector>

#include "gaugepoint/reports/UsageBlocks.hpp"
#include "gaugepoint/reports/UsagePeriods.hpp"

namespace gaugepoint {

enum class UsageReportKind { daily, weekly, monthly, session, blocks };
BOOST_DESCRIBE_ENUM(UsageReportKind, daily, weekly, monthly, session, blocks)

struct UsageReport {
    UsageReportKind kind = UsageReportKind::daily;
    UsagePeriodReport periods;       // daily, weekly, monthly
    UsageSessionReport sessions;     // session
    std::vector<UsageBlock> blocks;  // blocks: by start time, newest first when the filter says so
};

// The report of `kind` over `store`, days in the zone of `calendar` (Gregorian). Blocks count
// one provider: the filter's, else "claude". Throws UsageReportError and
// QuotaSessionFileRegistryError.
UsageReport makeUsageReport(const QuotaUsageEntryStore& store, const LocalCalendar& calendar, UsageReportKind kind,
                            const UsageReportFilter& filter, Date now, bool weekStartsMonday = false,
                            const std::vector<UsageOfOtherSource>& others = {});

// The JSON document of `report` (UsageReportJson), as `gaugepoint report <kind> --json` prints it.
std::string usageReportDocument(const UsageReport& report, bool pretty = true);

}  // namespace gaugepoint
