#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <vector>

#include "gaugepoint/model/QuotaNotifyArchiveEntry.hpp"

namespace gaugepoint {

// The inbox list's first page and the total count, kept in memory between calls. Each value is
// stamped with the read connection's data version ("PRAGMA data_version") when it was read and
// served only while that version is unchanged: any commit since, by this process or another,
// changes it. Writes of this process also clear the cache outright. Thread-safe (`lock`).
class NotifyInboxPageCache {
public:
    // The first `limit` entries, when a page of at least that limit was read at `dataVersion`.
    std::optional<std::vector<QuotaNotifyArchiveEntry>> page(std::int64_t limit, std::int64_t dataVersion) const;
    // Keeps `entries`, the first page read with `limit` at `dataVersion`.
    void storePage(const std::vector<QuotaNotifyArchiveEntry>& entries, std::int64_t limit, std::int64_t dataVersion);

    std::optional<std::int64_t> count(std::int64_t dataVersion) const;
    void storeCount(std::int64_t count, std::int64_t dataVersion);

    // Forgets everything; called after every write of this process.
    void invalidate();

private:
    mutable std::mutex lock;
    std::optional<std::vector<QuotaNotifyArchiveEntry>> firstPage;
    std::int64_t firstPageLimit = 0;
    std::int64_t firstPageVersion = 0;
    std::optional<std::int64_t> count_;
    std::int64_t countVersion = 0;
};

}  // namespace gaugepoint
