#include "gaugepoint/model/QuotaWindowSlots.hpp"

#include <string_view>

#include "gaugepoint/platform/Text.hpp"

namespace gaugepoint {
namespace {

// How the three slots read for one provider: labels, and a semantic (none: decided by length).
struct SlotMeaning {
    std::array<std::string_view, 3> labels;
    std::optional<QuotaWindowSemantic> semantic;
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
QuotaWindowSemantic timeSemantic(const QuotaSlotWindow& slot) {
    return slot.windowMinutes && *slot.windowMinutes < 361 ? QuotaWindowSemantic::rollingSession
                                                           : QuotaWindowSemantic::fixedCycle;
}

QuotaWindow windowFrom(const QuotaSlotWindow& slot, std::size_t index, const SlotMeaning& meaning, bool perModel) {
    static constexpr std::array<std::string_view, 3> kIDs{"primary", "secondary", "tertiary"};
    QuotaWindow window;
    window.id = kIDs[index];
    window.usedPercent = slot.usedPercent;
    window.resetsAt = slot.resetsAt;
    window.windowMinutes = slot.windowMinutes;
    window.sourceDescription = slot.resetDescription;
    window.importance = std::int64_t(index);
    window.modelSlug = slot.modelSlug;
    window.semantic = perModel ? QuotaWindowSemantic::perModel : meaning.semantic.value_or(timeSemantic(slot));
    if (slot.label && !trimmed(*slot.label).empty()) {
        window.label = *slot.label;
    } else if (perModel && slot.modelSlug && !slot.modelSlug->empty()) {
        window.label = *slot.modelSlug;
    } else {
        window.label = meaning.labels[index];
    }
    return window;
}

}  // namespace

void applyWindowSlots(ProviderQuota& provider, const std::array<std::optional<QuotaSlotWindow>, 3>& slots) {
    std::size_t present = 0;
    for (const auto& slot : slots) present += slot.has_value() ? 1 : 0;
    provider.quotaStrategy = strategyFor(provider.id, present, provider.creditsRemaining.has_value());
    const SlotMeaning meaning = slotMeaning(provider.id);
    const bool perModel = provider.quotaStrategy == QuotaProviderStrategy::multiModel;
    provider.windows.clear();
    for (std::size_t i = 0; i < slots.size(); ++i) {
        if (slots[i]) provider.windows.push_back(windowFrom(*slots[i], i, meaning, perModel));
    }
    provider.windows = sortedByImportance(std::move(provider.windows));
}

}  // namespace gaugepoint
