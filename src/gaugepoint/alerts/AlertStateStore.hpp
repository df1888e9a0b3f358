#pragma once

// What has fired, in "quota-alerts.sqlite" beside the other stores, so that each alert fires
// once per key across restarts and across processes evaluating at the same moment: an alert
// is claimed by inserting its key, and only the process whose insert added the row delivers it.

#include <boost/describe/class.hpp>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "gaugepoint/platform/Error.hpp"
#include "gaugepoint/platform/QuotaSyncConfiguration.hpp"
#include "gaugepoint/stores/SQLiteStore.hpp"

namespace gaugepoint {

class AlertStateStoreError : public Error {
public:
    static AlertStateStoreError missingAppGroupContainer(const std::string& identifier) {
        return AlertStateStoreError("The App Group container is unavailable: " + identifier + ".");
    }
    static AlertStateStoreError sqliteFailure(const std::string& message) { return AlertStateStoreError(message); }

private:
    using Error::Error;
};

// One alert key as recorded.
struct FiredAlert {
    std::string key;
    std::string rule;  // "threshold", "reset", "runsOut", "budget"
    std::string providerID;
    std::string windowID;
    double periodEnd = 0;  // seconds since 1970; 0 for a period without end (and budgets)
    Date firedAt;
    bool silent = false;  // recorded without delivery: already crossed when alerts were first evaluated
    std::optional<std::string> envelopeID;
    std::optional<std::string> desktop;  // what became of the desktop notification ("shown", "quiet hours", ...)

    bool operator==(const FiredAlert&) const = default;
};
BOOST_DESCRIBE_STRUCT(FiredAlert, (), (key, rule, providerID, windowID, periodEnd, firedAt, silent, envelopeID, desktop))

class AlertStateStore : public SQLiteStore<AlertStateStoreError> {
public:
    static constexpr std::string_view defaultFilename = "quota-alerts.sqlite";
    // Recorded alerts whose period ended longer ago than this are dropped when new ones are claimed.
    static constexpr double retentionSeconds = 40 * 24 * 3600.0;

    explicit AlertStateStore(QuotaSyncConfiguration configuration = QuotaSyncConfiguration::standard());

    // Every recorded alert, by key. Throws AlertStateStoreError.
    std::vector<FiredAlert> load() const;
    // Whether a first evaluation has recorded what was already crossed. Throws.
    bool baselined() const;
    // Records `alerts` in one immediate transaction and returns those this call added, for the
    // caller to deliver; before the first baseline every alert is recorded silent and none is
    // returned. Rows past the retention go in the same transaction. Throws.
    std::vector<FiredAlert> claim(const std::vector<FiredAlert>& alerts, Date now) const;
    // Notes where alert `key` went. Throws.
    void recordDelivery(std::string_view key, const std::optional<std::string>& envelopeID,
                        const std::optional<std::string>& desktop) const;

    // The desktop notification last shown for a window, which the next one of it replaces.
    std::optional<std::uint32_t> notificationID(std::string_view windowKey) const;
    void setNotificationID(std::string_view windowKey, std::uint32_t id) const;

    // Free-form state: the last desktop outcome ("desktop"). Throw.
    std::optional<std::string> state(std::string_view name) const;
    void setState(std::string_view name, std::string_view value) const;
};

}  // namespace gaugepoint
