#pragma once

// The catalogue of coding sessions as one document, and the incremental patches that keep a
// copy of it current.

#include <boost/describe/class.hpp>

#include <cstdint>
#include <string>
#include <vector>

#include "gaugepoint/model/QuotaSessionDescriptor.hpp"

namespace gaugepoint {

struct QuotaSessionCatalogPatch;

struct QuotaSessionCatalog {
    static constexpr std::int64_t currentVersion = 1;

    std::int64_t version = currentVersion;
    std::vector<QuotaSessionDescriptor> descriptors;
    std::vector<QuotaSessionAggregateSnapshot> aggregates;
    Date updatedAt;

    // Applies `patch`, in this order:
    //  1. every descriptor whose id is in removedDescriptorIDs goes, whatever its source (a
    //     patch names sessions by id only);
    //  2. each upserted descriptor replaces, in place, the one with the same (sourceID, id), or
    //     is appended; within one patch the later upsert of an identity wins, and an id that is
    //     both removed and upserted ends up present with the upserted contents;
    //  3. updatedAt becomes the patch's patchedAt, even when that is earlier.
    // The version and the aggregates are left as they are: aggregates are buckets of their own.
    void apply(const QuotaSessionCatalogPatch& patch);
    // A copy with `patch` applied as above.
    QuotaSessionCatalog applying(const QuotaSessionCatalogPatch& patch) const;

    bool operator==(const QuotaSessionCatalog&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionCatalog, (), (version, descriptors, aggregates, updatedAt))

struct QuotaSessionCatalogPatch {
    static constexpr std::int64_t currentVersion = 1;

    std::int64_t patchVersion = currentVersion;
    std::vector<QuotaSessionDescriptor> upsertedDescriptors;
    std::vector<std::string> removedDescriptorIDs;
    Date patchedAt;

    bool operator==(const QuotaSessionCatalogPatch&) const = default;
};
BOOST_DESCRIBE_STRUCT(QuotaSessionCatalogPatch, (), (patchVersion, upsertedDescriptors, removedDescriptorIDs, patchedAt))

}  // namespace gaugepoint

template <>
struct gaugepoint::json::AbsentKeys<gaugepoint::QuotaSessionCatalog> {
    static constexpr std::string_view keys[] = {"descriptors", "aggregates"};
};
template <>
struct gaugepoint::json::AbsentKeys<gaugepoint::QuotaSessionCatalogPatch> {
    static constexpr std::string_view keys[] = {"upsertedDescriptors", "removedDescriptorIDs"};
};
