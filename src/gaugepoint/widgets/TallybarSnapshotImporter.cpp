#include "gaugepoint/widgets/TallybarSnapshotImporter.hpp"

#include <array>
#include <thread>

#include "gaugepoint/model/QuotaWindowSlots.hpp"
#include "gaugepoint/platform/Text.hpp"
#include "gaugepoint/widgets/PathProvider.hpp"
#include "gaugepoint/widgets/QuotaProductCatalog.hpp"

namespace gaugepoint {
namespace {

using tallybar::RawProvider;
using tallybar::RawWindow;

QuotaSlotWindow slotFrom(const RawWindow& raw) {
    return {raw.usedPercent, raw.resetsAt, raw.windowMinutes, raw.label, raw.modelSlug, raw.resetDescription};
}

ProviderQuota providerFrom(const RawProvider& raw) {
    ProviderQuota provider;
    provider.id = TallybarSnapshotImporter::normalizedProviderID(raw.provider);
    provider.displayName = QuotaProductCatalog::displayName(provider.id);
    provider.modelID = raw.model;
    provider.modelDisplayName = raw.modelDisplayName;
    provider.updatedAt = raw.updatedAt;
    provider.creditsRemaining = raw.creditsRemaining;

    std::array<std::optional<QuotaSlotWindow>, 3> slots;
    const std::array<const std::optional<RawWindow>*, 3> raws{&raw.primary, &raw.secondary, &raw.tertiary};
    for (std::size_t i = 0; i < raws.size(); ++i) {
        if (*raws[i]) slots[i] = slotFrom(**raws[i]);
    }
    applyWindowSlots(provider, slots);

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
