#pragma once

#include <boost/describe/class.hpp>

#include <cstdint>
#include <vector>

#include "gaugepoint/model/QuotaSnapshot.hpp"

namespace gaugepoint {

// Snapshots over time, oldest first: what the history store returns and what trend
// archives carry.
struct QuotaHistoryTimeline {
    std::int64_t version = 1;
    std::vector<QuotaSnapshot> snapshots;

    // Version 1 and no snapshots.
    static QuotaHistoryTimeline empty() { return {}; }

    bool operator==(const QuotaHistoryTimeline&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaHistoryTimeline, (), (version, snapshots))

}  // namespace gaugepoint
