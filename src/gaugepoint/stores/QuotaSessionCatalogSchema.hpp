#pragma once

// The catalogue database's tables and indexes, and the migration of catalogues written by
// earlier versions; shared by the parts of the catalogue store.

#include "gaugepoint/stores/QuotaSessionCatalogStore.hpp"

namespace gaugepoint {

// The set-up every catalogue connection runs once: the schema, its cache size and the
// migrations (idempotent).
const SQLiteStoreSetup& catalogStoreSetup();

template <class Operation>
auto QuotaSessionCatalogStore::runCatalog(Operation&& operation) const {
    return run(catalogStoreSetup(), operation);
}

}  // namespace gaugepoint
