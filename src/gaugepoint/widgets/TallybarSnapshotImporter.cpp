#include "gaugepoint/widgets/TallybarSnapshotImporter.hpp"

#include <array>
#include <thread>

#include "gaugepoint/platform/Text.hpp"
#include "gaugepoint/widgets/PathProvider.hpp"
#include "gaugepoint/widgets/QuotaProductCatalog.hpp"

namespace gaugepoint {
namespace {

using tallybar::RawProvider;
using tallybar::RawWindow;

// How the sibling's three window slots read for one provider. The sibling means primary as the
// short rolling window, secondary as the longer cycle and tertiary as a further limit; some
// providers use the slots for request categories or credit pools instead.
struct SlotMeaning {
    std::array<std::string_view, 3> labels;
    std::optional<QuotaWindowSemantic> semantic;  // none: decided by the window's length
};

constexpr SlotMeaning kTimeWindows{{"Session", "Weekly", "Additional"}, std::nullopt};

SlotMeaning slotMeaning(std::string_view id) {
    if (id == "copilot") return {{"Premium requests", "Chat", "Completions"}, QuotaWindowSemantic::usageCategory};
    if (id == "warp") return {{"Requests", "Bonus requests", "Voice"}, QuotaWindowSemantic::usageCategory};
    if (id == "kiro") return {{"Vibe requests", "Planned-task requests", "Bonus credits"}, QuotaWindowSemantic::usageCategory};
    if (id == "kilo") return {{"Credits", "Bonus credits", "Team credits"}, QuotaWindowSemantic::creditsBalance};
    if (id == "cursor") return {{"Plan", "On-demand", "Additional"}, std::nullopt};
    return kTimeWindows;
}

QuotaProviderStrategy strategyFor(std::string_view id, std::size_t windowCount, bool hasCredits) {
    const auto byCount = [windowCount](QuotaProviderStrategy several) {
        if (windowCount >= 2) return several;
        return windowCount == 1 ? QuotaProviderStrategy::singleWindow : QuotaProviderStrategy::creditsOnly;
    };
    if (id == "codex" || id == "claude" || id == "claude-code" || id == "claude_code") {
        return byCount(QuotaProviderStrategy::multiWindow);
    }
    if (id == "openrouter") return QuotaProviderStrategy::creditsOnly;
    if (id == "cursor") return byCount(QuotaProviderStrategy::multiCategory);
    if (id == "antigravity" || id == "gemini") return byCount(QuotaProviderStrategy::multiModel);
    if (windowCount == 0 && !hasCredits) return QuotaProviderStrategy::unknown;
    return byCount(QuotaProviderStrategy::multiWindow);
}

// Up to six hours counts as a rolling session; longer or unknown lengths as a fixed cycle.
QuotaWindowSemantic timeSemantic(const RawWindow& raw) {
    return raw.windowMinutes && *raw.windowMinutes < 361 ? QuotaWindowSemantic::rollingSession
                                                         : QuotaWindowSemantic::fixedCycle;
}

QuotaWindow windowFrom(const RawWindow& raw, std::size_t slot, const SlotMeaning& meaning, bool perModel) {
    static constexpr std::array<std::string_view, 3> kIDs{"primary", "secondary", "tertiary"};
    QuotaWindow window;
    window.id = kIDs[slot];
    window.usedPercent = raw.usedPercent;
    window.resetsAt = raw.resetsAt;
    window.windowMinutes = raw.windowMinutes;
    window.sourceDescription = raw.resetDescription;
    window.importance = std::int64_t(slot);
    window.modelSlug = raw.modelSlug;
    window.semantic = perModel ? QuotaWindowSemantic::perModel : meaning.semantic.value_or(timeSemantic(raw));
    if (raw.label && !trimmed(*raw.label).empty()) {
        window.label = *raw.label;
    } else if (perModel && raw.modelSlug && !raw.modelSlug->empty()) {
        window.label = *raw.modelSlug;
    } else {
        window.label = meaning.labels[slot];
    }
    return window;
}

ProviderQuota providerFrom(const RawProvider& raw) {
    ProviderQuota provider;
    provider.id = TallybarSnapshotImporter::normalizedProviderID(raw.provider);
    provider.displayName = QuotaProductCatalog::displayName(provider.id);
    provider.modelID = raw.model;
    provider.modelDisplayName = raw.modelDisplayName;
    provider.updatedAt = raw.updatedAt;
    provider.creditsRemaining = raw.creditsRemaining;

    const std::array<const std::optional<RawWindow>*, 3> slots{&raw.primary, &raw.secondary, &raw.tertiary};
    std::size_t present = 0;
    for (const auto* slot : slots) present += slot->has_value() ? 1 : 0;
    provider.quotaStrategy = strategyFor(provider.id, present, raw.creditsRemaining.has_value());

    const SlotMeaning meaning = slotMeaning(provider.id);
    const bool perModel = provider.quotaStrategy == QuotaProviderStrategy::multiModel;
    for (std::size_t i = 0; i < slots.size(); ++i) {
        if (*slots[i]) provider.windows.push_back(windowFrom(**slots[i], i, meaning, perModel));
    }
    provider.windows = sortedByImportance(std::move(provider.windows));

    if (raw.tokenUsage) {
        const auto& usage = *raw.tokenUsage;
        provider.tokenUsage = QuotaTokenUsageSummary{usage.sessionCostUSD, usage.sessionTokens, usage.last30DaysCostUSD,
                                                     usage.last30DaysTokens};
    }
    if (raw.dailyUsage && !raw.dailyUsage->empty()) {
        auto& days = provider.dailyTokenUsage.emplace();
        for (const auto& day : *raw.dailyUsage) days.push_back({day.dayKey, day.costUSD, day.totalTokens});
    }
    return provider;
}

}  // namespace

std::string TallybarSnapshotImporter::normalizedProviderID(std::string_view rawProvider) {
    std::string id = normalizedLookupKey(rawProvider);
    return id == "claude-code" ? "claude" : id;
}

const std::filesystem::path& TallybarSnapshotImporter::defaultSourceURL() {
    return PathProvider::defaultTallybarWidgetSnapshot();
}

QuotaSnapshot TallybarSnapshotImporter::normalize(const tallybar::RawSnapshot& raw) {
    QuotaSnapshot snapshot;
    snapshot.version = 1;
    snapshot.generatedAt = raw.generatedAt;
    snapshot.providers.reserve(raw.entries.size());
    for (const auto& entry : raw.entries) snapshot.providers.push_back(providerFrom(entry));
    return snapshot;
}

QuotaSnapshot TallybarSnapshotImporter::loadAndNormalize(const std::filesystem::path& sourceURL) const {
    using Kind = TallybarSnapshotImportError::Kind;
    const auto read = [&] {
        try {
            return readFile(sourceURL);
        } catch (const Error& e) {
            throw TallybarSnapshotImportError(Kind::unreadable, e.what());
        }
    };
    FileContents contents = read();
    if (contents.inFlux) {
        // The sibling rewrites its file in place: an empty file or a size that moves under us
        // means we caught it mid-write. One more read after a short pause; never more.
        std::this_thread::sleep_for(retryDelay);
        contents = read();
        if (contents.inFlux) {
            throw TallybarSnapshotImportError(
                Kind::beingRewritten,
                "cannot read " + sourceURL.string() + ": the file is empty or was being rewritten while read (read twice)");
        }
    }
    try {
        return normalize(json::decode<tallybar::RawSnapshot>(contents.bytes));
    } catch (const json::DecodingError& e) {
        throw TallybarSnapshotImportError(Kind::malformed, "cannot decode " + sourceURL.string() + ": " + e.what());
    }
}

}  // namespace gaugepoint
