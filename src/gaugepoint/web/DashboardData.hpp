#pragma once

// The JSON documents behind the dashboard's pages, by route and query, for the server and the
// exported file alike. Usage answers are `gaugepoint report <kind> --json` and quota answers
// `gaugepoint widget --format json` for the same arguments, made by the same functions.
//
// Routes and their parameters (all optional):
//   /api/meta                                   language, time zone, providers, now
//   /api/widget    lang, from=local|sources     the widget document (empty snapshot: no providers)
//   /api/report    kind=daily|weekly|monthly|session|blocks, last=N days (today included),
//                  provider, timezone           the report document
//   /api/sessions  offset, limit (1..500)       a page of the session catalogue, latest ended first
//   /api/inbox     limit (1..500)               the newest notification inbox entries

#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "gaugepoint/platform/Date.hpp"
#include "gaugepoint/platform/LocalCalendar.hpp"
#include "gaugepoint/platform/QuotaSyncConfiguration.hpp"

namespace gaugepoint::web {

using DashboardParameters = std::map<std::string, std::string, std::less<>>;

// A query the routes cannot answer (a bad kind, zone, number): the client's fault, HTTP 400.
class DashboardQueryError : public std::invalid_argument {
public:
    using std::invalid_argument::invalid_argument;
};

struct DashboardSettings {
    QuotaSyncConfiguration configuration = QuotaSyncConfiguration::standard();
    std::optional<Date> pinnedNow;  // answers as of this moment (--now)
    std::string language = "en";    // of the texts unless a query names one
    std::string timeZone;           // days of the reports unless a query names one; empty: the system's
};

class DashboardData {
public:
    explicit DashboardData(DashboardSettings settings);

    // The document of `route` for `parameters`; none for an unknown route. Throws
    // DashboardQueryError for a bad parameter and gaugepoint::Error when a store fails.
    // Safe from several threads: every call opens the stores it reads.
    std::optional<std::string> answer(std::string_view route, const DashboardParameters& parameters) const;

    Date now() const;
    const DashboardSettings& settings() const { return settings_; }

private:
    std::string meta() const;
    std::string widget(const DashboardParameters& parameters) const;
    std::string report(const DashboardParameters& parameters) const;
    std::string sessions(const DashboardParameters& parameters) const;
    std::string inbox(const DashboardParameters& parameters) const;
    LocalCalendar calendar(const DashboardParameters& parameters) const;

    DashboardSettings settings_;
};

// "route?a=1&b=2" with the parameters in name order: the key of one answer in an exported file,
// which the page builds the same way. Values are percent-encoded.
std::string dashboardRequestKey(std::string_view route, const DashboardParameters& parameters);

}  // namespace gaugepoint::web
