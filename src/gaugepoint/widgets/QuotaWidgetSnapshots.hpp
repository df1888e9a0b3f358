#pragma once

// Where the faces (`gaugepoint widget`, the dashboard) find the snapshot they show, and the
// widget's JSON document of it: one path, so a page and the command never disagree.

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "gaugepoint/model/QuotaSnapshot.hpp"
#include "gaugepoint/platform/LocalCalendar.hpp"
#include "gaugepoint/platform/QuotaSyncConfiguration.hpp"
#include "gaugepoint/quota/QuotaReading.hpp"
#include "gaugepoint/stores/QuotaSourceSnapshotStore.hpp"
#include "gaugepoint/widgets/QuotaWidgetViewModel.hpp"

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

// What to name beside `snapshot`'s usage at `now`: today's day in the zone of `calendar`, and the
// tokens without a price of the last 30 days and of today, per provider: this machine's own when
// `snapshot` is this machine's, else none (another machine's or the sibling app's snapshot
// carries no such figure). Never throws.
QuotaWidgetUsageNotes usageNotesOf(const QuotaSnapshot& snapshot, const QuotaSyncConfiguration& configuration, Date now,
                                   const LocalCalendar& calendar);

// The view every face shows of `snapshot` at `now`, with usageNotesOf() named.
QuotaWidgetView view(const QuotaSnapshot& snapshot, Date now, std::string_view language, const QuotaFreshnessPolicy& policy,
                     const QuotaSyncConfiguration& configuration, const LocalCalendar& calendar);

// The `gaugepoint widget --format json` document of view() (indented, no newline).
std::string widgetDocument(const QuotaSnapshot& snapshot, Date now, std::string_view language,
                           const QuotaFreshnessPolicy& policy, const QuotaSyncConfiguration& configuration,
                           const LocalCalendar& calendar);

}  // namespace gaugepoint::QuotaWidgetSnapshots
