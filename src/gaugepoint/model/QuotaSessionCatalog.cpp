#include "gaugepoint/model/QuotaSessionCatalog.hpp"

#include <algorithm>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

namespace gaugepoint {
namespace {

// (sourceID, id) as one string that no other pair gives: the length of sourceID leads, so no
// character inside either part can shift the boundary.
std::string identityKey(const QuotaSessionDescriptor& descriptor) {
    std::string key = std::to_string(descriptor.sourceID.size());
    key += ':';
    key += descriptor.sourceID;
    key += descriptor.id;
    return key;
}

}  // namespace

void QuotaSessionCatalog::apply(const QuotaSessionCatalogPatch& patch) {
    if (!patch.removedDescriptorIDs.empty()) {
        const std::unordered_set<std::string_view> removed(patch.removedDescriptorIDs.begin(),
                                                           patch.removedDescriptorIDs.end());
        std::erase_if(descriptors, [&](const QuotaSessionDescriptor& d) { return removed.contains(d.id); });
    }
    std::unordered_map<std::string, std::size_t> position;
    position.reserve(descriptors.size() + patch.upsertedDescriptors.size());
    for (std::size_t i = 0; i < descriptors.size(); ++i) position.try_emplace(identityKey(descriptors[i]), i);
    for (const auto& upserted : patch.upsertedDescriptors) {
        const auto [slot, inserted] = position.try_emplace(identityKey(upserted), descriptors.size());
        if (inserted) {
            descriptors.push_back(upserted);
        } else {
            descriptors[slot->second] = upserted;
        }
    }
    updatedAt = patch.patchedAt;
}

QuotaSessionCatalog QuotaSessionCatalog::applying(const QuotaSessionCatalogPatch& patch) const {
    QuotaSessionCatalog copy = *this;
    copy.apply(patch);
    return copy;
}

}  // namespace gaugepoint
