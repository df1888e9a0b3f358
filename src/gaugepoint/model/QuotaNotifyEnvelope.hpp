#pragma once

// One notification as same-account sync carries it between the user's machines: what to show,
// where it came from, and which machines should show it.

#include <boost/describe/class.hpp>

#include <algorithm>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

#include "gaugepoint/platform/Date.hpp"
#include "gaugepoint/platform/Json.hpp"

namespace gaugepoint {

// JSON keys are the member names; a document may leave out `body` (read as ""). Category, level
// and target family are free text, so that a newer machine's values pass through an older one.
struct QuotaNotifyEnvelope {
    std::string envelopeID;  // unique per notification, never empty
    Date createdAt;
    Date updatedAt;
    std::string targetFamily;                    // which kind of machine shows it ("all", "mac", "phone")
    std::optional<std::string> targetDeviceKey;  // one machine only; absent: every machine of the family
    std::string title;
    std::string body;
    std::string sourceID;  // the machine that raised it
    std::optional<std::string> deviceName;
    std::optional<std::string> providerID;
    std::optional<std::string> providerName;
    std::string category;  // such as "quota", "reset", "general"
    std::string level;     // such as "info", "warning", "critical"

    // Orders notifications by creation time, then by ID, as plain text: the milliseconds since
    // 1970 of `createdAt` in 16 digits with leading zeros (0 before 1970), "-", the envelope ID.
    // A deletion record, which knows only the ID and the creation time, gets the same key.
    static std::string makeSortKey(Date createdAt, std::string_view envelopeID) {
        char millis[32];
        std::snprintf(millis, sizeof millis, "%016" PRId64, std::max<std::int64_t>(millisecondsSince1970(createdAt), 0));
        return std::string(millis) + "-" + std::string(envelopeID);
    }
    std::string sortKey() const { return makeSortKey(createdAt, envelopeID); }

    bool operator==(const QuotaNotifyEnvelope&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaNotifyEnvelope, (),
                      (envelopeID, createdAt, updatedAt, targetFamily, targetDeviceKey, title, body, sourceID,
                       deviceName, providerID, providerName, category, level))

}  // namespace gaugepoint

template <>
struct gaugepoint::json::AbsentKeys<gaugepoint::QuotaNotifyEnvelope> {
    static constexpr std::string_view keys[] = {"body"};
};
