#pragma once

// A cheap fingerprint of what the stores of one directory hold, for faces that stay open (the
// live terminal view, the dashboard) and must notice when another process (a timer's scan, the
// status line, a sync pull) committed something.

#include <cstdint>
#include <filesystem>

namespace gaugepoint {

// Combines name, size and modification time (nanoseconds) of every "quota-*" file of `directory`,
// write-ahead logs included and shared-memory files left out (readers touch those). Equal stamps
// mean no commit happened in between, to the file system's time resolution. Never throws: a
// missing or unreadable directory gives 0. Safe from any thread.
std::uint64_t storeChangeStamp(const std::filesystem::path& directory) noexcept;

}  // namespace gaugepoint
