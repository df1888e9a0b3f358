#pragma once

// Writes the sessions whose imported rows changed to the session catalogue: one descriptor per
// session built from its counted usage and messages, and its messages.

#include <cstdint>
#include <functional>

#include "gaugepoint/stores/QuotaSessionCatalogStore.hpp"
#include "gaugepoint/stores/QuotaUsageEntryStore.hpp"

namespace gaugepoint {

struct PublishTally {
    std::int64_t newSessions = 0;
    std::int64_t updatedSessions = 0;
};

// Publishes every session marked behind, in batches, clearing each mark once its session is in
// the catalogue; a publish stopped half way is finished by the next. Descriptors are written
// under the configuration's local source. A descriptor that did not change is not written, so it
// keeps its change time. A title is the one the tool keeps for the session, else the first line
// of the first prompt whose text was kept (the capture mode decides), else the project folder's
// name. Under metadataOnly no messages are
// published and a descriptor counts the prompts and counted responses. Throws the stores' errors.
PublishTally publishDirtySessions(const QuotaUsageEntryStore& usage, const QuotaSessionCatalogStore& catalog,
                                  QuotaSessionContentCaptureMode capture);

// Publishes every session the usage store knows (and those marked behind), as after a first
// import or when the catalogue was lost. Under metadataOnly the sessions are read in one pass
// per table and the catalogue is written on a thread of its own while `alongside` (work on
// other files than the catalogue) runs on the caller's, and every mark is cleared once all are
// in; otherwise each session is marked behind, `alongside` runs, and the marked sessions are
// published in batches.
// `alongside` is given a way to wait for the quarter sums of every counted entry, made in the
// pass that reads the sessions: none when that pass failed or publishing takes the marked way.
using QuarterSumsWait = std::function<const UsageQuarterSums*()>;
PublishTally publishEverySession(const QuotaUsageEntryStore& usage, const QuotaSessionCatalogStore& catalog,
                                 QuotaSessionContentCaptureMode capture,
                                 const std::function<void(const QuarterSumsWait&)>& alongside);

}  // namespace gaugepoint
