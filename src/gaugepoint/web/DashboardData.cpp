#include "gaugepoint/web/DashboardData.hpp"

#include <boost/describe/class.hpp>

#include <charconv>
#include <unordered_map>

#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/notify/QuotaNotifyInboxStore.hpp"
#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/quota/QuotaReading.hpp"
#include "gaugepoint/reports/ClaudeBlockLimit.hpp"
#include "gaugepoint/reports/UsageReport.hpp"
#include "gaugepoint/stores/QuotaSessionCatalogStore.hpp"
#include "gaugepoint/stores/QuotaSessionFileRegistry.hpp"
#include "gaugepoint/stores/QuotaSourceSnapshotStore.hpp"
#include "gaugepoint/widgets/QuotaWidgetSnapshots.hpp"

namespace gaugepoint::web {

// The documents below exist only for the page; their keys are the page's contract.
struct DashboardMeta {
    std::string language;
    std::string timeZone;
    Date now;
    bool nowPinned = false;
    std::vector<std::string> providers;          // the coding tools' ids, for the pickers
    std::optional<std::int64_t> claudeBlockLimit;  // tokens of one five-hour block, set or estimated
};
BOOST_DESCRIBE_STRUCT(DashboardMeta, (), (language, timeZone, now, nowPinned, providers, claudeBlockLimit))

struct DashboardSessionRow {
    std::string id;
    std::string sourceName;
    std::string provider;
    std::optional<std::string> projectPath;
    std::string title;
    std::optional<Date> startedAt;
    std::optional<Date> endedAt;
    std::vector<std::string> models;
    std::int64_t totalTokens = 0;
    QuotaSessionTokenUsage tokenUsage;
    std::optional<double> costUSD;  // reported by the tool, else estimated from this machine's usage
};
BOOST_DESCRIBE_STRUCT(DashboardSessionRow, (),
                      (id, sourceName, provider, projectPath, title, startedAt, endedAt, models, totalTokens,
                       tokenUsage, costUSD))

struct DashboardSessionPage {
    std::int64_t total = 0;
    std::int64_t offset = 0;
    std::vector<DashboardSessionRow> sessions;
};
BOOST_DESCRIBE_STRUCT(DashboardSessionPage, (), (total, offset, sessions))

// What a person reads of an inbox entry; delivery and pairing details stay in the store.
struct DashboardInboxEntry {
    Date createdAt;
    std::string title;
    std::optional<std::string> subtitle;
    std::string body;
    std::string category;
    std::optional<std::string> level;
    std::optional<std::string> provider;
    std::optional<std::string> sourceName;
};
BOOST_DESCRIBE_STRUCT(DashboardInboxEntry, (),
                      (createdAt, title, subtitle, body, category, level, provider, sourceName))

struct DashboardInbox {
    std::int64_t total = 0;
    std::vector<DashboardInboxEntry> entries;
};
BOOST_DESCRIBE_STRUCT(DashboardInbox, (), (total, entries))

namespace {

const std::string* parameter(const DashboardParameters& parameters, std::string_view name) {
    const auto found = parameters.find(name);
    return found == parameters.end() || found->second.empty() ? nullptr : &found->second;
}

std::int64_t wholeNumber(const DashboardParameters& parameters, std::string_view name, std::int64_t fallback,
                         std::int64_t lowest, std::int64_t highest) {
    const std::string* text = parameter(parameters, name);
    if (!text) return fallback;
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), value);
    if (error != std::errc() || end != text->data() + text->size() || value < lowest || value > highest) {
        throw DashboardQueryError(std::string(name) + " takes a whole number from " + std::to_string(lowest) +
                                  " to " + std::to_string(highest));
    }
    return value;
}

std::vector<std::string> providerIDs() {
    std::vector<std::string> ids;
    for (const auto& tool : codingTools()) ids.push_back(tool->provider().id);
    return ids;
}

UsageReportKind reportKind(const DashboardParameters& parameters) {
    const std::string* text = parameter(parameters, "kind");
    UsageReportKind kind = UsageReportKind::daily;
    if (text && !boost::describe::enum_from_string(text->c_str(), kind)) {
        throw DashboardQueryError("kind takes daily, weekly, monthly, session or blocks");
    }
    return kind;
}

// The percent-encoding of a query value: what the page's encodeURIComponent writes.
std::string percentEncoded(std::string_view text) {
    static const char* const hex = "0123456789ABCDEF";
    std::string out;
    for (const unsigned char c : text) {
        const bool alphanumeric = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
        if (alphanumeric || std::string_view("-_.!~*'()").find(char(c)) != std::string_view::npos) {
            out += char(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

}  // namespace

DashboardData::DashboardData(DashboardSettings settings) : settings_(std::move(settings)) {
    calendar({});  // an unknown default zone fails here, before the server starts
}

Date DashboardData::now() const { return settings_.pinnedNow.value_or(settings_.configuration.clock.now()); }

std::optional<std::string> DashboardData::answer(std::string_view route, const DashboardParameters& parameters) const {
    if (route == "/api/meta") return meta();
    if (route == "/api/widget") return widget(parameters);
    if (route == "/api/report") return report(parameters);
    if (route == "/api/sessions") return sessions(parameters);
    if (route == "/api/inbox") return inbox(parameters);
    return std::nullopt;
}

LocalCalendar DashboardData::calendar(const DashboardParameters& parameters) const {
    const std::string* zone = parameter(parameters, "timezone");
    const std::string& name = zone ? *zone : settings_.timeZone;
    if (name.empty()) return LocalCalendar::current(LocalCalendar::Kind::gregorian);
    auto calendar = LocalCalendar::inTimeZone(name, LocalCalendar::Kind::gregorian);
    if (!calendar) throw DashboardQueryError("unknown time zone \"" + name + "\"");
    return *calendar;
}

std::string DashboardData::meta() const {
    DashboardMeta meta{settings_.language, calendar({}).timeZoneID(), now(), settings_.pinnedNow.has_value(),
                       providerIDs(), std::nullopt};
    try {
        const QuotaUsageEntryStore store{QuotaSessionFileRegistry{settings_.configuration}};
        meta.claudeBlockLimit =
            ClaudeBlockLimit::resolve(ClaudeBlockLimit::setting(*settings_.configuration.userDefaults), store, now());
    } catch (const Error&) {
        // nothing imported yet: the blocks page shows no limit line
    }
    return json::encode(meta, true);
}

std::string DashboardData::widget(const DashboardParameters& parameters) const {
    const std::string* language = parameter(parameters, "lang");
    const std::string* from = parameter(parameters, "from");
    if (from && *from != "local" && *from != "sources") throw DashboardQueryError("from takes local or sources");
    const auto& configuration = settings_.configuration;
    std::optional<QuotaSnapshot> snapshot;
    if (from && *from == "sources") {
        const auto registry = QuotaSourceSnapshotStore{configuration}.load();
        if (!registry.entries.empty()) snapshot = QuotaWidgetSnapshots::combined(registry);
    } else {
        snapshot = QuotaWidgetSnapshots::preferred(configuration, now(), settings_.pinnedNow.has_value(), calendar({}));
    }
    // No reading yet: the document of an empty snapshot, as the widget prints it then.
    return QuotaWidgetSnapshots::widgetDocument(snapshot.value_or(QuotaSnapshot{}), now(),
                                                language ? *language : settings_.language,
                                                QuotaFreshnessPolicy::fromDefaults(*configuration.userDefaults), configuration,
                                                calendar({}));
}

std::string DashboardData::report(const DashboardParameters& parameters) const {
    const UsageReportKind kind = reportKind(parameters);
    const LocalCalendar days = calendar(parameters);
    UsageReportFilter filter;
    if (const std::string* provider = parameter(parameters, "provider")) {
        const auto known = providerIDs();
        if (std::find(known.begin(), known.end(), *provider) == known.end()) {
            throw DashboardQueryError("unknown provider \"" + *provider + "\"");
        }
        filter.providerID = *provider;
    }
    if (parameter(parameters, "last")) {
        // As `report <kind> --since <the first of the last N days>`: whole periods are not forced.
        const std::int64_t last = wholeNumber(parameters, "last", 30, 1, 100000);
        filter.since = dayKeyOfNumber(*dayNumber(days.dayKey(now())) - (last - 1));
    }
    const QuotaUsageEntryStore store{QuotaSessionFileRegistry{settings_.configuration}};
    return usageReportDocument(makeUsageReport(store, days, kind, filter, now()));
}

std::string DashboardData::sessions(const DashboardParameters& parameters) const {
    const std::int64_t offset = wholeNumber(parameters, "offset", 0, 0, INT64_MAX / 2);
    const std::int64_t limit = wholeNumber(parameters, "limit", 100, 1, 500);
    const QuotaSessionCatalogStore catalogue{settings_.configuration};
    DashboardSessionPage page{catalogue.totalCount(), offset, {}};
    const auto descriptors = catalogue.loadDescriptors(std::nullopt, limit, offset);
    // Costs the tools did not report come from this machine's priced usage, by session.
    std::unordered_map<std::string, double> costs;
    if (!descriptors.empty()) {
        try {
            const QuotaUsageEntryStore store{QuotaSessionFileRegistry{settings_.configuration}};
            const auto report = makeUsageReport(store, calendar({}), UsageReportKind::session, {}, now());
            for (const auto& row : report.sessions.rows) costs[row.providerID + "/" + row.sessionID] = row.totals.totalCost;
        } catch (const Error&) {
            // no usage imported: sessions without a reported cost show none
        }
    }
    const std::string localSource = settings_.configuration.localSourceID();
    for (const auto& d : descriptors) {
        DashboardSessionRow row{d.id, d.sourceName, d.provider.id, d.projectPath, d.title, d.startedAt, d.endedAt, {},
                                d.tokenUsage.totalTokens(), d.tokenUsage, d.tokenUsage.exactCostUSD};
        for (const auto& model : d.topModels) row.models.push_back(model.displayName.empty() ? model.id : model.displayName);
        if (!row.costUSD && d.sourceID == localSource) {
            if (const auto found = costs.find(d.provider.id + "/" + d.id); found != costs.end()) row.costUSD = found->second;
        }
        page.sessions.push_back(std::move(row));
    }
    return json::encode(page, true);
}

std::string DashboardData::inbox(const DashboardParameters& parameters) const {
    const std::int64_t limit = wholeNumber(parameters, "limit", 100, 1, 500);
    const QuotaNotifyInboxStore store{settings_.configuration};
    DashboardInbox inbox{store.totalCount(), {}};
    for (const auto& e : store.loadPage(0, limit)) {
        inbox.entries.push_back({e.createdAt, e.title, e.subtitle, e.body, e.category, e.level,
                                 e.providerDisplayName ? e.providerDisplayName : e.providerID, e.sourceName});
    }
    return json::encode(inbox, true);
}

std::string dashboardRequestKey(std::string_view route, const DashboardParameters& parameters) {
    std::string key(route);
    char separator = '?';
    for (const auto& [name, value] : parameters) {
        key += separator + percentEncoded(name) + "=" + percentEncoded(value);
        separator = '&';
    }
    return key;
}

}  // namespace gaugepoint::web
