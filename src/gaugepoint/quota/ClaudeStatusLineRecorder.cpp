#include "gaugepoint/quota/ClaudeStatusLineRecorder.hpp"

#include <algorithm>

#include "gaugepoint/model/QuotaReadingOrigin.hpp"
#include "gaugepoint/model/QuotaWindowSlots.hpp"
#include "gaugepoint/reports/LocalQuotaSnapshot.hpp"
#include "gaugepoint/stores/QuotaHistoryStore.hpp"
#include "gaugepoint/stores/QuotaSourceSnapshotStore.hpp"

namespace gaugepoint::ClaudeStatusLineRecorder {
namespace {

constexpr std::int64_t kFiveHours = 300;
constexpr std::int64_t kOneWeek = 10080;

std::optional<QuotaSlotWindow> slotOf(const std::optional<ClaudeRateLimitReading>& reading, std::int64_t minutes) {
    if (!reading) return std::nullopt;
    QuotaSlotWindow slot;
    slot.usedPercent = reading->usedPercent;
    slot.resetsAt = reading->resetsAt;
    slot.windowMinutes = minutes;
    slot.resetDescription = std::string(QuotaReadingOrigin::claudeStatusLine);
    return slot;
}

// The earlier official reading of the window of `minutes`, as a slot.
std::optional<QuotaSlotWindow> earlierSlot(const ProviderQuota& claude, std::int64_t minutes) {
    for (const auto& window : claude.windows) {
        if (window.sourceDescription != QuotaReadingOrigin::claudeStatusLine || window.windowMinutes != minutes) continue;
        return QuotaSlotWindow{window.usedPercent, window.resetsAt, minutes, std::nullopt, std::nullopt,
                               window.sourceDescription};
    }
    return std::nullopt;
}

ProviderQuota& claudeOf(QuotaSnapshot& snapshot) {
    const auto found = std::find_if(snapshot.providers.begin(), snapshot.providers.end(),
                                    [](const ProviderQuota& p) { return p.id == "claude"; });
    if (found != snapshot.providers.end()) return *found;
    ProviderQuota claude;
    claude.id = "claude";
    claude.displayName = "Claude";
    snapshot.providers.insert(snapshot.providers.begin(), std::move(claude));
    return snapshot.providers.front();
}

}  // namespace

void applyReading(ProviderQuota& claude, const ClaudeStatusLineInput& input, Date receivedAt) {
    auto fiveHour = slotOf(input.fiveHour, kFiveHours);
    auto sevenDay = slotOf(input.sevenDay, kOneWeek);
    if (!fiveHour) fiveHour = earlierSlot(claude, kFiveHours);
    if (!sevenDay) sevenDay = earlierSlot(claude, kOneWeek);
    applyWindowSlots(claude, {fiveHour, sevenDay, std::nullopt});
    claude.updatedAt = receivedAt;
}

std::optional<Result> record(const QuotaSyncConfiguration& configuration, const ClaudeStatusLineInput& input,
                             Date receivedAt) {
    if (!input.hasRateLimits()) return std::nullopt;
    Result result;
    QuotaSourceSnapshotStore{configuration}.update(
        configuration.localSourceID(), QuotaSourceSyncChannel::kvs,
        [&](const std::optional<QuotaSnapshot>& stored) -> std::optional<QuotaSnapshot> {
            QuotaSnapshot snapshot = stored.value_or(QuotaSnapshot{});
            if (!stored) {
                snapshot.generatedAt = receivedAt;
                snapshot.source = LocalQuotaSnapshot::source(configuration);
            }
            ProviderQuota& claude = claudeOf(snapshot);
            const std::vector<QuotaWindow> before = claude.windows;
            applyReading(claude, input, receivedAt);
            result.historyAppended = claude.windows != before;
            result.snapshot = snapshot;
            return snapshot;
        });
    if (result.historyAppended) {
        // One history row per reading: the record keeps when the scan made it, the row when it was read.
        QuotaSnapshot row = result.snapshot;
        row.generatedAt = receivedAt;
        QuotaHistoryStore{configuration}.record(row, configuration.historyRetentionDays);
    }
    return result;
}

}  // namespace gaugepoint::ClaudeStatusLineRecorder
