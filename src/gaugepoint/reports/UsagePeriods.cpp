#include "gaugepoint/reports/UsagePeriods.hpp"

#include <algorithm>
#include <map>

namespace gaugepoint {
namespace {

constexpr double kSecondsPerQuarterHour = 900;

// The day of the zone that holds a moment, found once per day rather than once per bucket:
// buckets come in time order, and a day's bounds are asked of the calendar only on entering it.
class DayCursor {
public:
    explicit DayCursor(const LocalCalendar& calendar) : calendar_(calendar) {}

    // The day number (days since 1970-01-01) of the day holding `date`.
    std::int64_t dayOf(Date date) {
        if (!entered_ || date < start_ || date >= end_) enter(date);
        return number_;
    }

private:
    void enter(Date date) {
        const std::string key = calendar_.dayKey(date);
        entered_ = true;
        number_ = dayNumber(key).value_or(0);
        start_ = calendar_.startOfDay(date);
        end_ = calendar_.startOfDay(dayKeyOfNumber(number_ + 1)).value_or(start_);
        if (end_ <= date) end_ = dateFromSeconds(secondsSince1970(date) + 1);  // never stuck on one moment
    }

    const LocalCalendar& calendar_;
    bool entered_ = false;
    std::int64_t number_ = 0;
    Date start_, end_;
};

std::string periodKey(std::int64_t day, UsagePeriod period, bool weekStartsMonday) {
    switch (period) {
        case UsagePeriod::daily:
            return dayKeyOfNumber(day);
        case UsagePeriod::weekly: {
            const int first = weekStartsMonday ? 1 : 0;
            return dayKeyOfNumber(day - (weekdayOfNumber(day) - first + 7) % 7);
        }
        case UsagePeriod::monthly:
            return dayKeyOfNumber(day).substr(0, 7);
    }
    return {};
}

std::optional<Date> dayStart(const LocalCalendar& calendar, const std::optional<std::string>& key, int after,
                             const char* option) {
    if (!key) return std::nullopt;
    const auto number = dayNumber(*key);
    const auto start = number ? calendar.startOfDay(dayKeyOfNumber(*number + after)) : std::nullopt;
    if (!start) throw UsageReportError(std::string(option) + ": \"" + *key + "\" is not a day (YYYY-MM-DD)");
    return start;
}

template <class Row>
void order(std::vector<Row>& rows, bool descending) {
    if (descending) std::reverse(rows.begin(), rows.end());
}

// The other machines' sessions that the filter keeps.
std::vector<const UsageOfOtherSource*> kept(const std::vector<UsageOfOtherSource>& others, const UsageReportFilter& filter,
                                            const std::optional<Date>& since, const std::optional<Date>& until) {
    std::vector<const UsageOfOtherSource*> list;
    for (const auto& other : others) {
        if (filter.providerID && other.providerID != *filter.providerID) continue;
        if ((since && other.at < *since) || (until && other.at >= *until)) continue;
        list.push_back(&other);
    }
    return list;
}

void addTo(UsageTally& tally, const UsageOfOtherSource& other) {
    for (std::size_t i = 0; i < other.models.size(); ++i) {
        tally.add(other.models[i].first, i == 0 ? other.entries : 0, other.models[i].second);
    }
}

}  // namespace

std::vector<UsageOfOtherSource> usageOfOtherSources(const QuotaSessionCatalogStore& catalog,
                                                    std::string_view localSourceID) {
    std::vector<UsageOfOtherSource> others;
    for (const auto& d : catalog.loadAllDescriptors()) {
        const auto at = d.endedAt ? d.endedAt : d.transcriptUpdatedAt ? d.transcriptUpdatedAt : d.startedAt;
        if (d.sourceID == localSourceID || !at) continue;
        UsageOfOtherSource other{d.sourceID, d.provider.id, d.id, d.projectPath, *at, d.messageCount, {}};
        for (const auto& model : d.topModels) other.models.emplace_back(model.id.empty() ? model.displayName : model.id, model.tokenUsage);
        if (other.models.empty()) other.models.emplace_back("unknown", d.tokenUsage);
        others.push_back(std::move(other));
    }
    return others;
}

std::pair<std::optional<Date>, std::optional<Date>> reportInterval(const LocalCalendar& calendar,
                                                                   const UsageReportFilter& filter) {
    const auto since = dayStart(calendar, filter.since, 0, "since");
    const auto until = dayStart(calendar, filter.until, 1, "until");
    if (since && until && *until <= *since) {
        throw UsageReportError("until: \"" + *filter.until + "\" is before since \"" + *filter.since + "\"");
    }
    return {since, until};
}

UsageTotals usageOfDays(const QuotaUsageEntryStore& store, const LocalCalendar& calendar, const UsageReportFilter& filter) {
    return usageByPeriod(store, calendar, UsagePeriod::monthly, filter).totals;  // the fewest rows
}

UsagePeriodReport usageByPeriod(const QuotaUsageEntryStore& store, const LocalCalendar& calendar, UsagePeriod period,
                                const UsageReportFilter& filter, bool weekStartsMonday,
                                const std::vector<UsageOfOtherSource>& others) {
    const auto [since, until] = reportInterval(calendar, filter);
    std::map<std::string, UsageTally> periods;
    UsageTally all;
    DayCursor days{calendar};
    for (const auto& bucket : store.usageBuckets(filter.providerID, since, until)) {
        const std::int64_t day = days.dayOf(dateFromSeconds(double(bucket.quarterHour) * kSecondsPerQuarterHour));
        periods[periodKey(day, period, weekStartsMonday)].add(bucket.model, bucket.entries, bucket.tokens,
                                                              bucket.cacheWrite1hTokens, bucket.charges);
        all.add(bucket.model, bucket.entries, bucket.tokens, bucket.cacheWrite1hTokens, bucket.charges);
    }
    for (const auto* other : kept(others, filter, since, until)) {
        const std::int64_t day = dayNumber(calendar.dayKey(other->at)).value_or(0);
        addTo(periods[periodKey(day, period, weekStartsMonday)], *other);
        addTo(all, *other);
    }
    UsagePeriodReport report;
    for (const auto& [key, tally] : periods) report.rows.push_back({key, tally.totals()});
    order(report.rows, filter.descending);
    report.totals = all.totals();
    return report;
}

UsageSessionReport usageBySession(const QuotaUsageEntryStore& store, const LocalCalendar& calendar,
                                  const UsageReportFilter& filter, const std::vector<UsageOfOtherSource>& others) {
    const auto [since, until] = reportInterval(calendar, filter);
    struct Session {
        UsageTally tally;
        Date lastActivity;
        std::optional<std::string> projectPath;
    };
    std::map<QuotaUsageEntryStore::SessionKey, Session> sessions;
    UsageTally all;
    for (const auto& row : store.sessionModelUsage(filter.providerID, since, until)) {
        Session& session = sessions[row.session];
        session.lastActivity = session.tally.empty() ? row.lastActivity : std::max(session.lastActivity, row.lastActivity);
        session.tally.add(row.model, row.entries, row.tokens, row.cacheWrite1hTokens, row.charges);
        if (row.projectPath) session.projectPath = row.projectPath;
        all.add(row.model, row.entries, row.tokens, row.cacheWrite1hTokens, row.charges);
    }
    UsageSessionReport report;
    for (const auto& [key, session] : sessions) {
        report.rows.push_back({key.sessionID, key.providerID, session.projectPath, session.lastActivity, session.tally.totals()});
    }
    for (const auto* other : kept(others, filter, since, until)) {
        UsageTally tally;
        addTo(tally, *other);
        addTo(all, *other);
        report.rows.push_back({other->sessionID, other->providerID, other->projectPath, other->at, tally.totals()});
    }
    std::stable_sort(report.rows.begin(), report.rows.end(),
                     [](const auto& a, const auto& b) { return a.lastActivity < b.lastActivity; });
    order(report.rows, filter.descending);
    report.totals = all.totals();
    return report;
}

}  // namespace gaugepoint
