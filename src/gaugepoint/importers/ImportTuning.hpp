#pragma once

#include "gaugepoint/stores/QuotaSessionCatalogStore.hpp"
#include "gaugepoint/stores/QuotaSessionFileRegistry.hpp"

namespace gaugepoint::scanning {

// How the connections work for the length of a scan; the set-up values are restored after.
//  - The stores map up to 256 MiB of each database file into memory for fast reads. A scan
//    touches most pages of the files it fills, so the connections read through the page cache
//    instead: the scan's memory then stays the same whatever the size of the tree and stores.
//  - The registry keeps up to 64 MiB of pages while the logs are written, so that a batch's
//    changes (random places in the usage indexes) stay in memory until it commits instead of
//    being spilled and written again; afterWriting() gives most of them back before the work
//    at the end of a scan (catalogue, sums, indexes) needs memory of its own.
//  - Statement journals (the undo of one statement inside a batch, which every insert that fires
//    a trigger needs) are kept in memory instead of in a temporary file.
//  - The registry's and catalogue's commits do not copy the write-ahead log back into the file
//    (a page a later batch changes again would be copied again, and each copy ends with a flush
//    to the disk): the scan does that once, at its end (or the first commit after it, or the
//    last connection's close).
class ImportTuning {
public:
    ImportTuning(const QuotaSessionFileRegistry& registry, const QuotaSessionCatalogStore& catalog);
    ~ImportTuning();
    // The logs are written: the registry keeps the set-up page cache again.
    void afterWriting() const;
    ImportTuning(const ImportTuning&) = delete;
    ImportTuning& operator=(const ImportTuning&) = delete;

private:
    const QuotaSessionFileRegistry& registry_;
    const QuotaSessionCatalogStore& catalog_;
};

}  // namespace gaugepoint::scanning
