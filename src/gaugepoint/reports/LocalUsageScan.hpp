#pragma once

// The scan every face runs before it reads the stores: what the logs added since the last scan
// is imported, then this machine's quota snapshot is made and published. When a scan last
// finished is kept as the modification time of a stamp file in the App Group directory, so any
// process can tell whether the stores are recent enough to be read without scanning again.

#include <optional>
#include <string_view>

#include "gaugepoint/importers/QuotaLogScanner.hpp"
#include "gaugepoint/model/QuotaSnapshot.hpp"
#include "gaugepoint/platform/Date.hpp"

namespace gaugepoint::LocalUsageScan {

constexpr std::string_view stampFilename = "quota-last-scan.stamp";

struct Result {
    QuotaScanSummary summary;
    std::optional<QuotaSnapshot> snapshot;  // this machine's, as published; none with a pinned clock
};

// Scans with `options`, then publishes this machine's snapshot made at `publishAt` (none, as for
// a pinned clock: nothing dated is stored), and stamps the end of the scan. Throws
// gaugepoint::Error when the stores cannot be written.
Result run(const QuotaSyncConfiguration& configuration, const QuotaScanOptions& options, std::optional<Date> publishAt);

// Seconds (of the system's clock, whatever the configuration's) since a scan through run() last
// finished; none when none has, or the App Group directory cannot be resolved.
std::optional<double> secondsSinceLastScan(const QuotaSyncConfiguration& configuration) noexcept;

}  // namespace gaugepoint::LocalUsageScan
