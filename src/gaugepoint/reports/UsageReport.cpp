#include "gaugepoint/reports/UsageReport.hpp"

#include <algorithm>

#include "gaugepoint/reports/UsageReportJson.hpp"

namespace gaugepoint {
namespace {

UsagePeriod periodOf(UsageReportKind kind) {
    return kind == UsageReportKind::weekly    ? UsagePeriod::weekly
           : kind == UsageReportKind::monthly ? UsagePeriod::monthly
                                              : UsagePeriod::daily;
}

}  // namespace

UsageReport makeUsageReport(const QuotaUsageEntryStore& store, const LocalCalendar& calendar, UsageReportKind kind,
                            const UsageReportFilter& filter, Date now, bool weekStartsMonday,
                            const std::vector<UsageOfOtherSource>& others) {
    UsageReport report;
    report.kind = kind;
    switch (kind) {
        case UsageReportKind::daily:
        case UsageReportKind::weekly:
        case UsageReportKind::monthly:
            report.periods = usageByPeriod(store, calendar, periodOf(kind), filter, weekStartsMonday, others);
            break;
        case UsageReportKind::session:
            report.sessions = usageBySession(store, calendar, filter, others);
            break;
        case UsageReportKind::blocks: {
            const auto [since, until] = reportInterval(calendar, filter);
            report.blocks = usageBlocks(store.countedEntries(filter.providerID.value_or("claude"), since, until), now);
            if (filter.descending) std::reverse(report.blocks.begin(), report.blocks.end());
            break;
        }
    }
    return report;
}

std::string usageReportDocument(const UsageReport& report, bool pretty) {
    switch (report.kind) {
        case UsageReportKind::session:
            return UsageReportJson::sessions(report.sessions, pretty);
        case UsageReportKind::blocks:
            return UsageReportJson::blocks(report.blocks, pretty);
        default:
            return UsageReportJson::periods(report.periods, periodOf(report.kind), pretty);
    }
}

}  // namespace gaugepoint
