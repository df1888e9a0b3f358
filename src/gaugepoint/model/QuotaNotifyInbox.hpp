#pragma once

#include <boost/describe/class.hpp>
#include <boost/describe/enum.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "gaugepoint/model/QuotaNotifyArchiveEntry.hpp"
#include "gaugepoint/platform/Hashing.hpp"

namespace gaugepoint {

// What a change of the inbox did, as other devices replay it.
enum class QuotaNotifyInboxMutationType { messageUpsert, messageDelete, threadDelete, inboxClear };
BOOST_DESCRIBE_ENUM(QuotaNotifyInboxMutationType, messageUpsert, messageDelete, threadDelete, inboxClear)

// One change of the inbox: which message or thread it touched (none for inboxClear).
struct QuotaNotifyInboxMutation {
    std::string id;
    Date createdAt;
    QuotaNotifyInboxMutationType type = QuotaNotifyInboxMutationType::messageUpsert;
    std::optional<std::string> messageID;
    std::optional<std::string> threadID;

    bool operator==(const QuotaNotifyInboxMutation&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaNotifyInboxMutation, (), (id, createdAt, type, messageID, threadID))

// The whole inbox as one document: entries newest first, and the changes not yet carried to
// other devices. Version 2 is the SQLite-backed inbox.
struct QuotaNotifyInbox {
    static constexpr std::int64_t currentVersion = 2;

    std::int64_t version = currentVersion;
    std::vector<QuotaNotifyArchiveEntry> entries;
    std::vector<QuotaNotifyInboxMutation> mutations;

    // No entries and no mutations, at the current version.
    static QuotaNotifyInbox empty() { return {}; }

    bool operator==(const QuotaNotifyInbox&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaNotifyInbox, (), (version, entries, mutations))

}  // namespace gaugepoint

GAUGEPOINT_DECLARE_HASH(gaugepoint::QuotaNotifyInboxMutation);
