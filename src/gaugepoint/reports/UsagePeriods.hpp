#pragma once

// Usage reports over the counted entries of the log import: per day, week or month of a time
// zone, and per session. A day is a calendar day of the zone however long it is (23 or 25 hours
// across a clock change); a week is named by its first day, a month "yyyy-MM". A period or
// session without usage has no row.

#include <optional>
#include <string>
#include <vector>

#include "gaugepoint/platform/Error.hpp"
#include "gaugepoint/platform/LocalCalendar.hpp"
#include "gaugepoint/reports/UsageTotals.hpp"
#include "gaugepoint/stores/QuotaSessionCatalogStore.hpp"
#include "gaugepoint/stores/QuotaUsageEntryStore.hpp"

namespace gaugepoint {

enum class UsagePeriod { daily, weekly, monthly };

// Which entries a report counts and in what order its rows come.
struct UsageReportFilter {
    std::optional<std::string> providerID;  // none: every provider
    std::optional<std::string> since;       // "yyyy-MM-dd", the first day counted
    std::optional<std::string> until;       // "yyyy-MM-dd", the last day counted
    bool descending = false;                // rows newest first
};

// Thrown for a `since` or `until` that is not a day of the calendar.
class UsageReportError : public Error {
public:
    using Error::Error;
};

struct UsagePeriodRow {
    std::string period;  // "2026-11-18" (a day or the first day of a week) or "2026-11"
    UsageTotals totals;
    bool operator==(const UsagePeriodRow&) const = default;
};

struct UsageSessionRow {
    std::string sessionID;
    std::string providerID;
    std::optional<std::string> projectPath;
    Date lastActivity;
    UsageTotals totals;
    bool operator==(const UsageSessionRow&) const = default;
};

struct UsagePeriodReport {
    std::vector<UsagePeriodRow> rows;
    UsageTotals totals;  // of every row
};

struct UsageSessionReport {
    std::vector<UsageSessionRow> rows;
    UsageTotals totals;
};

// A session of another of the user's machines, as sync brought its descriptor: tokens per model,
// all counted at the session's last activity (its end, else its last update, else its start),
// since a descriptor does not say when within the session each response came.
struct UsageOfOtherSource {
    std::string sourceID;
    std::string providerID;
    std::string sessionID;
    std::optional<std::string> projectPath;
    Date at;
    std::int64_t entries = 0;  // the session's messages
    std::vector<std::pair<std::string, QuotaSessionTokenUsage>> models;
};
// The sessions of every source but `localSourceID` in the catalogue. Throws the store's errors.
std::vector<UsageOfOtherSource> usageOfOtherSources(const QuotaSessionCatalogStore& catalog,
                                                    std::string_view localSourceID);

// The rows of `period` in the zone of `calendar` (its days must be Gregorian: make it with
// LocalCalendar::Kind::gregorian). Weeks start on Sunday, or Monday with `weekStartsMonday`.
// Throws UsageReportError and QuotaSessionFileRegistryError.
// `others` adds the sessions of other machines.
UsagePeriodReport usageByPeriod(const QuotaUsageEntryStore& store, const LocalCalendar& calendar, UsagePeriod period,
                                const UsageReportFilter& filter, bool weekStartsMonday = false,
                                const std::vector<UsageOfOtherSource>& others = {});

// The usage of the filter's days (in the zone of `calendar`) as one total, without rows: today's
// or this month's spend. Throws as above.
UsageTotals usageOfDays(const QuotaUsageEntryStore& store, const LocalCalendar& calendar, const UsageReportFilter& filter);

// A row per session with the entries of the filter's days (in the zone of `calendar`), by last
// activity. Throws as above.
UsageSessionReport usageBySession(const QuotaUsageEntryStore& store, const LocalCalendar& calendar,
                                  const UsageReportFilter& filter, const std::vector<UsageOfOtherSource>& others = {});

// [since, until) of the filter's days in the zone of `calendar`. Throws UsageReportError.
std::pair<std::optional<Date>, std::optional<Date>> reportInterval(const LocalCalendar& calendar,
                                                                   const UsageReportFilter& filter);

}  // namespace gaugepoint
