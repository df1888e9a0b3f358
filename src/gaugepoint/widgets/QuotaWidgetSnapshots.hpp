#pragma once

// Where the faces (`gaugepoint widget`, the dashboard) find the snapshot they show, and the
// widget's JSON document of it: one path, so a page and the command never disagree.

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "gaugepoint/model/QuotaSnapshot.hpp"
#include "gaugepoint/platform/LocalCalendar.hpp"
#include "gaugepoint/platform/QuotaSyncConfiguration.hpp"
#include "gaugepoint/quota/QuotaReading.hpp"
#include "gaugepoint/stores/QuotaSourceSnapshotStore.hpp"

namespace gaugepoint::QuotaWidgetSnapshots {

// Every source's snapshot of a non-empty `registry` as one: each provider named with its machine
// when there are several, and dated by its own snapshot.
QuotaSnapshot combined(const QuotaSourceSnapshotRegistry& registry);

// This machine's snapshot: as the last scan stored it unless `nowPinned`, else made at `now`
// from the imported usage; none when nothing was imported. Throws only for an unusable store.
std::optional<QuotaSnapshot> thisMachine(const QuotaSyncConfiguration& configuration, Date now, bool nowPinned,
                                         const LocalCalendar& calendar);

// The sibling app's widget file at its default place when it exists (imported; throws when it
// is malformed), else thisMachine().
std::optional<QuotaSnapshot> preferred(const QuotaSyncConfiguration& configuration, Date now, bool nowPinned,
                                       const LocalCalendar& calendar);

// The `gaugepoint widget --format json` document of `snapshot` at `now` (indented, no newline).
std::string widgetDocument(const QuotaSnapshot& snapshot, Date now, std::string_view language,
                           const QuotaFreshnessPolicy& policy);

}  // namespace gaugepoint::QuotaWidgetSnapshots
