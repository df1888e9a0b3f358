#pragma once

#include <boost/describe/class.hpp>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "gaugepoint/platform/Json.hpp"

namespace gaugepoint {

// The rarely used fields of a notification message, kept together as one JSON text (the inbox's
// cold_ext column) so that the columns hold only what lists and filters need.
struct NotifyInboxColdExt {
    std::optional<std::string> url;
    std::optional<std::string> copyText;
    std::optional<std::string> sound;
    std::optional<std::int64_t> badge;
    bool autoCopy = false;  // required in JSON
    std::optional<std::string> targetDeviceKey;
    std::optional<std::map<std::string, std::string>> extras;
    std::optional<std::string> category;

    bool operator==(const NotifyInboxColdExt&) const = default;
};
BOOST_DESCRIBE_STRUCT(NotifyInboxColdExt, (),
                      (url, copyText, sound, badge, autoCopy, targetDeviceKey, extras, category))

// One delivered or archived notification message, as a row of the inbox: one member per column,
// in column order. origin, category, level and the deliveredVia items are free text.
//
// JSON keys are the member names. Required: envelopeID, threadID, createdAt, archivedAt, origin.
// Absent (or null) title and body read as "", category as "general", isArchive as true and
// deliveredVia as empty: a row always binds every column, so these defaults live here.
struct QuotaNotifyArchiveEntry {
    std::string envelopeID;
    std::string threadID;
    Date createdAt;
    Date archivedAt;
    std::string origin;
    std::string title;
    std::optional<std::string> subtitle;
    std::string body;
    std::optional<std::string> sourceID;
    std::optional<std::string> sourceName;
    std::optional<std::string> sourceLine;
    std::optional<std::string> providerID;
    std::optional<std::string> providerDisplayName;
    std::optional<std::string> groupID;
    std::optional<std::string> iconHint;
    std::string category = "general";
    std::optional<std::string> level;
    bool isArchive = true;
    std::optional<std::string> pairingToken;
    std::optional<std::string> mailboxRecordName;
    std::vector<std::string> deliveredVia;
    std::optional<NotifyInboxColdExt> coldExt;

    bool operator==(const QuotaNotifyArchiveEntry&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaNotifyArchiveEntry, (),
                      (envelopeID, threadID, createdAt, archivedAt, origin, title, subtitle, body, sourceID,
                       sourceName, sourceLine, providerID, providerDisplayName, groupID, iconHint, category, level,
                       isArchive, pairingToken, mailboxRecordName, deliveredVia, coldExt))

}  // namespace gaugepoint

template <>
struct gaugepoint::json::AbsentKeys<gaugepoint::QuotaNotifyArchiveEntry> {
    static constexpr std::string_view keys[] = {"title", "body", "category", "isArchive", "deliveredVia"};
};
