#include "gaugepoint/reports/LocalQuotaSnapshot.hpp"

#include <algorithm>
#include <array>

#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/model/QuotaWindowSlots.hpp"
#include "gaugepoint/reports/UsageBlocks.hpp"
#include "gaugepoint/reports/UsagePeriods.hpp"
#include "gaugepoint/stores/QuotaHistoryStore.hpp"
#include "gaugepoint/stores/QuotaSessionTokenLedger.hpp"
#include "gaugepoint/stores/QuotaSourceSnapshotStore.hpp"
#include "gaugepoint/stores/QuotaUsageEntryStore.hpp"

namespace gaugepoint::LocalQuotaSnapshot {
namespace {

constexpr int kDays = 30;
constexpr std::int64_t kBlockMinutes = 300;

const char* platformLabel() {
#ifdef __APPLE__
    return "macOS";
#else
    return "Linux";
#endif
}

// A reported window as of now: once its reset has passed, a new window has begun unused.
std::optional<QuotaSlotWindow> slotOf(const std::optional<QuotaObservedRateWindow>& observed, Date now) {
    if (!observed) return std::nullopt;
    QuotaSlotWindow slot;
    slot.windowMinutes = observed->windowMinutes;
    if (observed->resetsAt && *observed->resetsAt <= now) return slot;
    slot.usedPercent = observed->usedPercent;
    slot.resetsAt = observed->resetsAt;
    return slot;
}

void applyRateLimits(ProviderQuota& provider, const QuotaObservedRateLimits& limits, Date now) {
    applyWindowSlots(provider, {slotOf(limits.primary, now), slotOf(limits.secondary, now), std::nullopt});
    provider.updatedAt = limits.observedAt;
}

// The active block as the primary window, measured against the user's limit.
void applyBlockLimit(ProviderQuota& provider, const std::optional<UsageBlock>& block, std::int64_t limit) {
    QuotaSlotWindow slot;
    slot.windowMinutes = kBlockMinutes;
    if (block) {
        const double used = 100.0 * double(block->totals.tokens.totalTokens()) / double(limit);
        slot.usedPercent = std::clamp(used, 0.0, 100.0);
        slot.resetsAt = block->endTime;
    }
    applyWindowSlots(provider, {slot, std::nullopt, std::nullopt});
}

// Usage of the last 30 days and of the active block; false when the provider has none.
bool applyUsage(ProviderQuota& provider, const UsagePeriodReport& days, const std::optional<UsageBlock>& block) {
    if (days.rows.empty() && !block) return false;
    QuotaTokenUsageSummary usage;
    usage.sessionTokens = block ? block->totals.tokens.totalTokens() : 0;
    usage.sessionCostUSD = block ? block->totals.totalCost : 0.0;
    usage.last30DaysTokens = days.totals.tokens.totalTokens();
    usage.last30DaysCostUSD = days.totals.totalCost;
    provider.tokenUsage = usage;
    std::vector<QuotaDailyTokenEntry> daily;
    for (const auto& row : days.rows) daily.push_back({row.period, row.totals.totalCost, row.totals.tokens.totalTokens()});
    provider.dailyTokenUsage = std::move(daily);
    return true;
}

}  // namespace

std::optional<std::int64_t> claudeBlockTokenLimit(const UserDefaults& defaults) {
    const auto value = defaults.value(claudeBlockTokenLimitKey);
    if (!value || !value->is_int64() || value->as_int64() <= 0) return std::nullopt;
    return value->as_int64();
}

void setClaudeBlockTokenLimit(UserDefaults& defaults, std::optional<std::int64_t> limit) {
    if (limit && *limit > 0) {
        defaults.setValue(claudeBlockTokenLimitKey, boost::json::value(*limit));
    } else {
        defaults.removeValue(claudeBlockTokenLimitKey);
    }
}

QuotaSnapshot make(const QuotaSyncConfiguration& configuration, Date now, const LocalCalendar& calendar) {
    const QuotaUsageEntryStore store{QuotaSessionFileRegistry{configuration}};
    QuotaSnapshot snapshot;
    snapshot.generatedAt = now;
    snapshot.source = QuotaSnapshotSource{configuration.localSourceID(), configuration.localSourceName(),
                                          QuotaSyncConfiguration::hostName(), platformLabel()};
    UsageReportFilter lastDays;
    lastDays.since = calendar.dayKey(calendar.addingDays(now, -(kDays - 1)));
    const auto blockLimit = claudeBlockTokenLimit(*configuration.userDefaults);
    for (const auto& tool : codingTools()) {
        const auto identity = tool->provider();
        ProviderQuota provider;
        provider.id = identity.id;
        provider.displayName = identity.displayName;
        lastDays.providerID = identity.id;
        const auto block = activeUsageBlock(store, identity.id, now);
        bool shown = applyUsage(provider, usageByPeriod(store, calendar, UsagePeriod::daily, lastDays), block);
        if (const auto limits = store.latestRateLimits(identity.id)) {
            applyRateLimits(provider, *limits, now);
            shown = true;
        } else if (identity.id == "claude" && blockLimit && shown) {
            applyBlockLimit(provider, block, *blockLimit);
        }
        if (shown) snapshot.providers.push_back(std::move(provider));
    }
    return snapshot;
}

void publish(const QuotaSnapshot& snapshot, const QuotaSyncConfiguration& configuration) {
    QuotaHistoryStore{configuration}.record(snapshot, configuration.historyRetentionDays);
    QuotaSessionTokenLedger{configuration}.upsert(snapshot);
    QuotaSourceSnapshotStore{configuration}.upsert(snapshot, std::nullopt, QuotaSourceSyncChannel::kvs);
}

std::optional<QuotaSnapshot> latest(const QuotaSyncConfiguration& configuration) noexcept {
    try {
        const auto record = QuotaSourceSnapshotStore{configuration}.loadRecord(configuration.localSourceID());
        if (record) return record->snapshot;
    } catch (...) {
    }
    return std::nullopt;
}

}  // namespace gaugepoint::LocalQuotaSnapshot
