#pragma once

// The import checkpoints: per tool, a digest of the files a scan saw.

#include <string>
#include <vector>

#include "gaugepoint/importers/LogFileReader.hpp"
#include "gaugepoint/stores/QuotaSessionCatalogStore.hpp"

namespace gaugepoint::scanning {

// Writes the checkpoints of the tools whose files changed, in one save; an unchanged tree
// writes nothing. Throws the state store's errors.
void updateCheckpoints(const QuotaSessionImportStateStore& states, const std::vector<ToolFiles>& tools,
                       const std::string& sourceID, QuotaSessionContentCaptureMode capture, Date now);

}  // namespace gaugepoint::scanning
