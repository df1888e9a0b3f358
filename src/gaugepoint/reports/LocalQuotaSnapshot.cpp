#include "gaugepoint/reports/LocalQuotaSnapshot.hpp"

#include <algorithm>
#include <array>
#include <cmath>

#include "gaugepoint/importers/CodingToolLogs.hpp"
#include "gaugepoint/model/QuotaReadingOrigin.hpp"
#include "gaugepoint/model/QuotaWindowSlots.hpp"
#include "gaugepoint/platform/Json.hpp"
#include "gaugepoint/reports/ClaudeBlockLimit.hpp"
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
constexpr double kRefreshSeconds = 5 * 60;

const char* platformLabel() {
#ifdef __APPLE__
    return "macOS";
#else
    return "Linux";
#endif
}

std::optional<QuotaSlotWindow> slotOf(const std::optional<QuotaObservedRateWindow>& observed) {
    if (!observed) return std::nullopt;
    QuotaSlotWindow slot;
    slot.windowMinutes = observed->windowMinutes;
    slot.usedPercent = observed->usedPercent;
    slot.resetsAt = observed->resetsAt;
    return slot;
}

void applyRateLimits(ProviderQuota& provider, const QuotaObservedRateLimits& limits) {
    applyWindowSlots(provider, {slotOf(limits.primary), slotOf(limits.secondary), std::nullopt});
    provider.updatedAt = limits.observedAt;
}

// Claude's windows as Claude Code's status line last reported them, with when.
struct OfficialReading {
    std::vector<QuotaWindow> windows;
    QuotaProviderStrategy strategy = QuotaProviderStrategy::multiWindow;
    Date observedAt;

    bool current(Date now) const {
        return std::any_of(windows.begin(), windows.end(), [now](const auto& w) { return w.resetsAt && *w.resetsAt > now; });
    }
};

std::optional<OfficialReading> officialClaudeReading(const QuotaSnapshot& snapshot) {
    for (const auto& provider : snapshot.providers) {
        if (provider.id != "claude" || !provider.updatedAt) continue;
        OfficialReading reading{{}, provider.quotaStrategy, *provider.updatedAt};
        for (const auto& window : provider.windows) {
            if (window.sourceDescription == QuotaReadingOrigin::claudeStatusLine) reading.windows.push_back(window);
        }
        if (!reading.windows.empty()) return reading;
    }
    return std::nullopt;
}

// The active block as the primary window, measured against a limit of ours or the user's.
void applyBlockLimit(ProviderQuota& provider, const std::optional<UsageBlock>& block, std::int64_t limit,
                     std::string_view origin) {
    QuotaSlotWindow slot;
    slot.windowMinutes = kBlockMinutes;
    slot.resetDescription = std::string(origin);
    if (block) {
        const double used = 100.0 * double(block->totals.tokens.totalTokens()) / double(limit);
        slot.usedPercent = std::clamp(used, 0.0, 100.0);
        slot.resetsAt = block->endTime;
    }
    applyWindowSlots(provider, {slot, std::nullopt, std::nullopt});
}

void applyOfficial(ProviderQuota& provider, const OfficialReading& official) {
    provider.windows = official.windows;
    provider.quotaStrategy = official.strategy;
    provider.updatedAt = official.observedAt;
}

// Claude's windows: official while their period lasts, else an estimate, else the last official
// ones. False when there is nothing to show.
bool applyClaudeWindows(ProviderQuota& provider, const std::optional<OfficialReading>& official, bool hasUsage,
                        const QuotaUsageEntryStore& store, const std::optional<UsageBlock>& block,
                        const UserDefaults& defaults, Date now) {
    if (official && official->current(now)) {
        applyOfficial(provider, *official);
        return true;
    }
    const auto setting = ClaudeBlockLimit::setting(defaults);
    const auto limit = hasUsage ? ClaudeBlockLimit::resolve(setting, store, now) : std::nullopt;
    if (limit) {
        applyBlockLimit(provider, block, *limit,
                        setting.tokens ? QuotaReadingOrigin::estimatedFromUserLimit : QuotaReadingOrigin::estimatedFromBlocks);
        return true;
    }
    if (official) applyOfficial(provider, *official);
    return official.has_value();
}

// Usage of the last 30 days and of the active block; false when the provider has none.
bool applyUsage(ProviderQuota& provider, const UsagePeriodReport& days, const std::optional<UsageBlock>& block) {
    if (days.rows.empty() && !block) return false;
    // A cost of nothing but unpriced tokens is unknown, not $0: it is left out.
    const auto knownCost = [](const UsageTotals& totals) {
        const bool nonePriced = totals.unpricedTokens > 0 && totals.unpricedTokens >= totals.tokens.totalTokens();
        return nonePriced ? std::nullopt : std::optional(totals.totalCost);
    };
    QuotaTokenUsageSummary usage;
    usage.sessionTokens = block ? block->totals.tokens.totalTokens() : 0;
    usage.sessionCostUSD = block ? knownCost(block->totals) : std::optional(0.0);
    usage.last30DaysTokens = days.totals.tokens.totalTokens();
    usage.last30DaysCostUSD = knownCost(days.totals);
    provider.tokenUsage = usage;
    std::vector<QuotaDailyTokenEntry> daily;
    for (const auto& row : days.rows) daily.push_back({row.period, row.totals.totalCost, row.totals.tokens.totalTokens()});
    provider.dailyTokenUsage = std::move(daily);
    return true;
}

QuotaSnapshot withoutTimes(QuotaSnapshot snapshot) {
    snapshot.generatedAt = {};
    for (auto& provider : snapshot.providers) provider.updatedAt.reset();
    return snapshot;
}

// Equal JSON documents, numbers within a relative 1e-9: a stored snapshot's doubles come back
// from the JSON parser within an ulp or two of what was written, and the same costs summed in
// another order differ in their last bits.
bool nearlyEqual(const boost::json::value& a, const boost::json::value& b) {
    if (a.is_number() && b.is_number()) {
        const double x = a.to_number<double>(), y = b.to_number<double>();
        return std::fabs(x - y) <= 1e-9 * std::max({1.0, std::fabs(x), std::fabs(y)});
    }
    if (a.kind() != b.kind()) return false;
    if (a.is_array()) {
        const auto &x = a.as_array(), &y = b.as_array();
        return x.size() == y.size() && std::equal(x.begin(), x.end(), y.begin(), nearlyEqual);
    }
    if (a.is_object()) {
        const auto &x = a.as_object(), &y = b.as_object();
        if (x.size() != y.size()) return false;
        return std::all_of(x.begin(), x.end(), [&](const auto& member) {
            const auto* other = y.if_contains(member.key());
            return other && nearlyEqual(member.value(), *other);
        });
    }
    return a == b;
}

// `snapshot`, keeping the official Claude reading of `stored` when it arrived after the
// snapshot was made (a status line that ran during the scan).
QuotaSnapshot mergedWithNewerReadings(QuotaSnapshot snapshot, const std::optional<QuotaSnapshot>& stored) {
    if (!stored) return snapshot;
    const auto official = officialClaudeReading(*stored);
    if (!official || official->observedAt <= snapshot.generatedAt) return snapshot;
    for (auto& provider : snapshot.providers) {
        if (provider.id == "claude") {
            applyOfficial(provider, *official);
            return snapshot;
        }
    }
    for (const auto& provider : stored->providers) {
        if (provider.id == "claude") snapshot.providers.push_back(provider);
    }
    return snapshot;
}

}  // namespace

std::map<std::string, std::int64_t> unpricedTokens(const QuotaSyncConfiguration& configuration, Date now,
                                                   const LocalCalendar& calendar, int days) noexcept {
    std::map<std::string, std::int64_t> unpriced;
    try {
        const QuotaUsageEntryStore store{QuotaSessionFileRegistry{configuration}};
        UsageReportFilter lastDays;
        lastDays.since = calendar.dayKey(calendar.addingDays(now, -(days - 1)));
        for (const auto& tool : codingTools()) {
            lastDays.providerID = tool->provider().id;
            const std::int64_t tokens = usageOfDays(store, calendar, lastDays).unpricedTokens;
            if (tokens > 0) unpriced[tool->provider().id] = tokens;
        }
    } catch (const Error&) {
        unpriced.clear();
    }
    return unpriced;
}

QuotaSnapshot make(const QuotaSyncConfiguration& configuration, Date now, const LocalCalendar& calendar) {
    const QuotaUsageEntryStore store{QuotaSessionFileRegistry{configuration}};
    QuotaSnapshot snapshot;
    snapshot.generatedAt = now;
    snapshot.source = source(configuration);
    std::optional<OfficialReading> official;
    if (const auto stored = latest(configuration)) official = officialClaudeReading(*stored);
    if (official && official->observedAt > now) official.reset();  // a pinned clock before the reading
    UsageReportFilter lastDays;
    lastDays.since = calendar.dayKey(calendar.addingDays(now, -(kDays - 1)));
    for (const auto& tool : codingTools()) {
        const auto identity = tool->provider();
        ProviderQuota provider;
        provider.id = identity.id;
        provider.displayName = identity.displayName;
        provider.updatedAt = now;
        lastDays.providerID = identity.id;
        const auto block = activeUsageBlock(store, identity.id, now);
        const bool hasUsage = applyUsage(provider, usageByPeriod(store, calendar, UsagePeriod::daily, lastDays), block);
        bool shown = hasUsage;
        if (const auto limits = store.latestRateLimits(identity.id)) {
            applyRateLimits(provider, *limits);
            shown = true;
        } else if (identity.id == "claude") {
            shown = applyClaudeWindows(provider, official, hasUsage, store, block, *configuration.userDefaults, now) || shown;
        }
        if (shown) snapshot.providers.push_back(std::move(provider));
    }
    return snapshot;
}

QuotaSnapshotSource source(const QuotaSyncConfiguration& configuration) {
    return {configuration.localSourceID(), configuration.localSourceName(), QuotaSyncConfiguration::hostName(),
            platformLabel()};
}

bool sameReadings(const QuotaSnapshot& a, const QuotaSnapshot& b) {
    return nearlyEqual(json::parse(json::encode(withoutTimes(a))), json::parse(json::encode(withoutTimes(b))));
}

PublishResult publish(const QuotaSnapshot& snapshot, const QuotaSyncConfiguration& configuration) {
    PublishResult result;
    QuotaSnapshot published;
    const QuotaSourceSnapshotStore sources{configuration};
    sources.update(configuration.localSourceID(), QuotaSourceSyncChannel::kvs,
                   [&](const std::optional<QuotaSnapshot>& stored) -> std::optional<QuotaSnapshot> {
                       published = mergedWithNewerReadings(snapshot, stored);
                       result.readingsChanged = !stored || !sameReadings(*stored, published);
                       const bool due = !stored || secondsSince1970(published.generatedAt) -
                                                           secondsSince1970(stored->generatedAt) >= kRefreshSeconds;
                       if (!result.readingsChanged && !due) return std::nullopt;
                       result.recordWritten = true;
                       return published;
                   });
    if (result.readingsChanged) {
        QuotaHistoryStore{configuration}.record(published, configuration.historyRetentionDays);
        QuotaSessionTokenLedger{configuration}.upsert(published);
    }
    return result;
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
