#pragma once

// Row mappings shared by the catalogue store's parts.

#include <cstdint>
#include <string_view>

#include "gaugepoint/stores/QuotaSessionCatalogStore.hpp"

namespace gaugepoint::catalogrows {

// A message row from column `first` on: seq, role, text, timestamp, model, token_count, and
// with `withTimes` inserted_at, updated_at.
PersistedSessionMessageRow messageRow(const sqlite::Statement& row, int first, bool withTimes);

// Columns: source_id, session_id, seq ... token_count, id, inserted_at, updated_at.
QuotaSessionMessageChange messageChange(const sqlite::Statement& row);

// Runs a statement without results; the number of rows it changed. `name` labels its errors.
std::int64_t execute(sqlite::Connection& connection, const char* sql, std::string_view name);

// Forgets every export watermark.
std::int64_t clearWatermarks(sqlite::Connection& connection);

}  // namespace gaugepoint::catalogrows
