#pragma once

#include <boost/describe/class.hpp>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "gaugepoint/model/ProviderQuota.hpp"

namespace gaugepoint {

// Identity of the machine or app that published a snapshot; sourceID tells sources apart.
struct QuotaSnapshotSource {
    std::string sourceID;
    std::string sourceName;
    std::string hostName;
    std::string platformLabel;

    bool operator==(const QuotaSnapshotSource&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSnapshotSource, (), (sourceID, sourceName, hostName, platformLabel))

// One published snapshot: every provider of one source at one moment.
struct QuotaSnapshot {
    std::int64_t version = 1;
    Date generatedAt;
    std::optional<QuotaSnapshotSource> source;
    std::vector<ProviderQuota> providers;

    // Version 1, no source, no providers; generatedAt is the moment of the first call, kept after.
    static const QuotaSnapshot& empty();

    // The earliest reset among all windows of all providers, past dates included; none when no
    // window has a reset date.
    std::optional<Date> nextResetAt() const;

    bool operator==(const QuotaSnapshot&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSnapshot, (), (version, generatedAt, source, providers))

}  // namespace gaugepoint

GAUGEPOINT_DECLARE_HASH(gaugepoint::QuotaSnapshotSource);
GAUGEPOINT_DECLARE_HASH(gaugepoint::QuotaSnapshot);
