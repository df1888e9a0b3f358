#include "gaugepoint/tui/WatchModel.hpp"

#include <algorithm>
#include <filesystem>
#include <map>

#include "gaugepoint/reports/LocalQuotaSnapshot.hpp"
#include "gaugepoint/reports/UsagePeriods.hpp"
#include "gaugepoint/stores/QuotaSourceSnapshotStore.hpp"

namespace gaugepoint::tui {
namespace {

constexpr int kSparklineDays = 14;
constexpr double kActiveSessionSeconds = 3600;

bool wanted(const WatchInputs& inputs, const std::string& providerID) {
    return !inputs.providerFilter || *inputs.providerFilter == providerID;
}

// The cards of a snapshot's providers that have windows.
std::vector<WatchProviderCard> cardsOf(const QuotaSnapshot& snapshot, const WatchInputs& inputs,
                                       const QuotaFreshnessPolicy& policy) {
    std::vector<WatchProviderCard> cards;
    for (const auto& provider : snapshot.providers) {
        if (!provider.hasQuotaWindows() || !wanted(inputs, provider.id)) continue;
        WatchProviderCard card{provider.id, provider.displayName.empty() ? provider.id : provider.displayName,
                               quotaProviderNow(provider, snapshot.generatedAt, inputs.now, policy), {}};
        for (std::size_t i = 0; i < card.reading.windows.size(); ++i) {
            card.windows.push_back({provider.windows[i].localizedLabel(inputs.language), card.reading.windows[i]});
        }
        cards.push_back(std::move(card));
    }
    return cards;
}

std::string projectName(const std::optional<std::string>& path) {
    if (!path || path->empty()) return "-";
    const std::filesystem::path p{*path};
    const auto name = p.has_filename() ? p.filename() : p.parent_path().filename();
    return name.empty() ? *path : name.string();
}

// Runs one panel's reading; a failure leaves the panel empty and is named in `problems`.
template <class Read>
void reading(WatchModel& model, const char* what, Read&& read) {
    try {
        read();
    } catch (const std::exception& e) {
        model.problems.push_back(std::string(what) + ": " + e.what());
    }
}

}  // namespace

std::optional<QuotaSnapshot> thisMachineSnapshot(const QuotaSyncConfiguration& configuration, Date now,
                                                 const LocalCalendar& calendar, bool clockPinned) {
    if (!clockPinned) {
        if (auto stored = LocalQuotaSnapshot::latest(configuration)) return stored;
    }
    try {
        auto made = LocalQuotaSnapshot::make(configuration, now, calendar);
        if (!made.providers.empty()) return made;
    } catch (const std::exception&) {
        // nothing imported yet
    }
    return std::nullopt;
}

WatchModel makeWatchModel(const WatchInputs& inputs) {
    const auto& configuration = *inputs.configuration;
    const auto& calendar = *inputs.calendar;
    WatchModel model;
    model.now = inputs.now;
    model.timeZoneID = calendar.timeZoneID();
    model.language = inputs.language;
    model.providerFilter = inputs.providerFilter;
    QuotaFreshnessPolicy policy;
    if (configuration.userDefaults) policy = QuotaFreshnessPolicy::fromDefaults(*configuration.userDefaults);
    if (inputs.snapshot) model.cards = cardsOf(*inputs.snapshot, inputs, policy);

    const QuotaUsageEntryStore store{QuotaSessionFileRegistry{configuration}};
    const std::string today = calendar.dayKey(inputs.now);
    reading(model, "blocks", [&] {
        for (const auto& tool : inputs.tools) {
            if (!wanted(inputs, tool.id)) continue;
            if (auto block = activeUsageBlock(store, tool.id, inputs.now)) model.blocks.push_back({tool.id, tool.name, *block});
        }
    });
    reading(model, "today", [&] {
        for (const auto& tool : inputs.tools) {
            if (!wanted(inputs, tool.id)) continue;
            UsageReportFilter filter;
            filter.providerID = tool.id;
            filter.since = filter.until = today;
            const auto totals = usageOfDays(store, calendar, filter);
            if (totals.entries > 0) model.today.push_back({tool.id, tool.name, totals.tokens.totalTokens(), totals.totalCost});
        }
    });
    reading(model, "daily cost", [&] {
        UsageReportFilter filter;
        filter.providerID = inputs.providerFilter;
        filter.since = calendar.dayKey(calendar.addingDays(inputs.now, -(kSparklineDays - 1)));
        filter.until = today;
        std::map<std::string, double> byDay;
        for (const auto& row : usageByPeriod(store, calendar, UsagePeriod::daily, filter).rows) {
            byDay[row.period] = row.totals.totalCost;
        }
        for (int back = kSparklineDays - 1; back >= 0; --back) {
            const auto key = calendar.dayKey(calendar.addingDays(inputs.now, -back));
            model.dailyCost.push_back(byDay.contains(key) ? byDay[key] : 0.0);
        }
    });
    reading(model, "sessions", [&] {
        const Date since = inputs.now - std::chrono::duration<double>(kActiveSessionSeconds);
        UsageReportFilter filter;
        filter.providerID = inputs.providerFilter;
        filter.since = calendar.dayKey(since);
        filter.until = today;
        for (const auto& row : usageBySession(store, calendar, filter).rows) {
            if (row.lastActivity < since || row.lastActivity > inputs.now) continue;
            model.sessions.push_back({row.providerID, projectName(row.projectPath), row.lastActivity,
                                      row.totals.tokens.totalTokens(), row.totals.totalCost});
        }
        std::sort(model.sessions.begin(), model.sessions.end(),
                  [](const WatchSession& a, const WatchSession& b) { return a.lastActivity > b.lastActivity; });
    });
    reading(model, "other machines", [&] {
        const auto registry = QuotaSourceSnapshotStore{configuration}.load();
        const std::string local = configuration.localSourceID();
        for (const auto& record : registry.entries) {
            if (record.sourceID.value_or(record.id) == local) continue;
            WatchMachine machine{record.sourceName,
                                 std::max(0.0, secondsSince1970(inputs.now) - secondsSince1970(record.snapshot.generatedAt)),
                                 cardsOf(record.snapshot, inputs, policy)};
            model.machines.push_back(std::move(machine));
        }
    });
    return model;
}

}  // namespace gaugepoint::tui
