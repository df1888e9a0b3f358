#pragma once

#include <boost/describe/class.hpp>
#include <boost/describe/enum.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "gaugepoint/model/QuotaSnapshot.hpp"

namespace gaugepoint {

// How a source's snapshot reached this device: the key-value store, or a paired device.
enum class QuotaSourceSyncChannel { kvs, pairing };
BOOST_DESCRIBE_ENUM(QuotaSourceSyncChannel, kvs, pairing)

// The latest snapshot of one publishing source, with where it came from.
struct QuotaSourceSnapshotRecord {
    std::string id;
    std::optional<std::string> sourceID;
    std::string sourceName;
    std::optional<std::string> hostName;
    std::optional<std::string> platformLabel;
    std::optional<std::string> pairingToken;
    QuotaSourceSyncChannel channel = QuotaSourceSyncChannel::kvs;
    QuotaSnapshot snapshot;
    Date receivedAt;

    bool operator==(const QuotaSourceSnapshotRecord&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSourceSnapshotRecord, (),
                      (id, sourceID, sourceName, hostName, platformLabel, pairingToken, channel, snapshot, receivedAt))

// Every source's latest record, newest first when loaded from the store.
struct QuotaSourceSnapshotRegistry {
    std::int64_t version = 1;
    std::vector<QuotaSourceSnapshotRecord> entries;

    bool operator==(const QuotaSourceSnapshotRegistry&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSourceSnapshotRegistry, (), (version, entries))

}  // namespace gaugepoint

GAUGEPOINT_DECLARE_HASH(gaugepoint::QuotaSourceSnapshotRecord);
