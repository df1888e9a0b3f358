#include "gaugepoint/widgets/QuotaWidgetSnapshots.hpp"

#include <algorithm>

#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/reports/LocalQuotaSnapshot.hpp"
#include "gaugepoint/widgets/QuotaWidgetViewModel.hpp"
#include "gaugepoint/widgets/TallybarSnapshotImporter.hpp"

namespace gaugepoint::QuotaWidgetSnapshots {

// A bar then shows the most constrained window of all the user's machines.
QuotaSnapshot combined(const QuotaSourceSnapshotRegistry& registry) {
    QuotaSnapshot all;
    all.generatedAt = registry.entries.front().snapshot.generatedAt;
    for (const auto& record : registry.entries) {
        all.generatedAt = std::max(all.generatedAt, record.snapshot.generatedAt);
        for (auto provider : record.snapshot.providers) {
            if (registry.entries.size() > 1) provider.displayName = record.sourceName + " · " + provider.displayName;
            // Each provider is as old as its own snapshot, not as the newest of them.
            if (!provider.updatedAt) provider.updatedAt = record.snapshot.generatedAt;
            all.providers.push_back(std::move(provider));
        }
    }
    return all;
}

std::optional<QuotaSnapshot> thisMachine(const QuotaSyncConfiguration& configuration, Date now, bool nowPinned,
                                         const LocalCalendar& calendar) {
    // A pinned clock asks for the readings as of that moment, which the stored one is not.
    if (!nowPinned) {
        if (auto stored = LocalQuotaSnapshot::latest(configuration)) return stored;
    }
    try {
        auto made = LocalQuotaSnapshot::make(configuration, now, calendar);
        if (!made.providers.empty()) return made;
    } catch (const Error&) {
        // nothing imported yet
    }
    return std::nullopt;
}

std::optional<QuotaSnapshot> preferred(const QuotaSyncConfiguration& configuration, Date now, bool nowPinned,
                                       const LocalCalendar& calendar) {
    const auto sibling = TallybarSnapshotImporter::defaultSourceURL();
    std::error_code error;
    if (std::filesystem::exists(sibling, error)) return TallybarSnapshotImporter{}.loadAndNormalize(sibling);
    return thisMachine(configuration, now, nowPinned, calendar);
}

QuotaWidgetUsageNotes usageNotesOf(const QuotaSnapshot& snapshot, const QuotaSyncConfiguration& configuration, Date now,
                                   const LocalCalendar& calendar) {
    QuotaWidgetUsageNotes notes;
    notes.today = calendar.dayKey(now);
    if (!snapshot.source || snapshot.source->sourceID != configuration.localSourceID()) return notes;
    notes.unpricedLast30Days = LocalQuotaSnapshot::unpricedTokens(configuration, now, calendar);
    notes.unpricedToday = LocalQuotaSnapshot::unpricedTokens(configuration, now, calendar, 1);
    return notes;
}

QuotaWidgetView view(const QuotaSnapshot& snapshot, Date now, std::string_view language, const QuotaFreshnessPolicy& policy,
                     const QuotaSyncConfiguration& configuration, const LocalCalendar& calendar) {
    return QuotaWidgetView::make(snapshot, now, language, policy, usageNotesOf(snapshot, configuration, now, calendar));
}

std::string widgetDocument(const QuotaSnapshot& snapshot, Date now, std::string_view language,
                           const QuotaFreshnessPolicy& policy, const QuotaSyncConfiguration& configuration,
                           const LocalCalendar& calendar) {
    return json::encode(view(snapshot, now, language, policy, configuration, calendar), true);
}

}  // namespace gaugepoint::QuotaWidgetSnapshots
