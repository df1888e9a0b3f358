#include "gaugepoint/notify/NotifyInboxPageCache.hpp"

#include <algorithm>

namespace gaugepoint {

std::optional<std::vector<QuotaNotifyArchiveEntry>> NotifyInboxPageCache::page(std::int64_t limit,
                                                                               std::int64_t dataVersion) const {
    std::lock_guard guard{lock};
    if (!firstPage || firstPageVersion != dataVersion || limit > firstPageLimit || limit < 0) return std::nullopt;
    // A page read with a larger limit holds every smaller first page: when it came back short,
    // the table held no more rows than it has.
    const auto n = std::min(std::size_t(limit), firstPage->size());
    return std::vector<QuotaNotifyArchiveEntry>(firstPage->begin(), firstPage->begin() + std::ptrdiff_t(n));
}

void NotifyInboxPageCache::storePage(const std::vector<QuotaNotifyArchiveEntry>& entries, std::int64_t limit,
                                     std::int64_t dataVersion) {
    std::lock_guard guard{lock};
    firstPage = entries;
    firstPageLimit = limit;
    firstPageVersion = dataVersion;
}

std::optional<std::int64_t> NotifyInboxPageCache::count(std::int64_t dataVersion) const {
    std::lock_guard guard{lock};
    if (!count_ || countVersion != dataVersion) return std::nullopt;
    return count_;
}

void NotifyInboxPageCache::storeCount(std::int64_t count, std::int64_t dataVersion) {
    std::lock_guard guard{lock};
    count_ = count;
    countVersion = dataVersion;
}

void NotifyInboxPageCache::invalidate() {
    std::lock_guard guard{lock};
    firstPage.reset();
    count_.reset();
}

}  // namespace gaugepoint
