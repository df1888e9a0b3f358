#pragma once

// The sync server of an invocation, shared by `sync setup|push|pull|status|connect` and `scan`.

#include <optional>
#include <string>

#include "CommandSupport.hpp"
#include "gaugepoint/pgsync/SameAccountSync.hpp"

namespace gaugepoint::cli {

// --url when given, else the configuration's sync server (QuotaSyncConfiguration::syncServer);
// none: sync is off.
std::optional<std::string> resolveSyncURL(const std::string& urlOption, const GlobalOptions& globals);

// The sync of this machine's stores with the server at `url`, retrying a failure that may pass
// at most `retries` times (none: as the retry policy says).
SameAccountSync syncWith(const std::string& url, const GlobalOptions& globals,
                         std::optional<std::int64_t> retries = std::nullopt);

// "pushed 2 source records, 120 sessions, 1 notification and 0 deletions to <server>".
std::string pushSummaryLine(const SyncPushSummary& summary);

}  // namespace gaugepoint::cli
