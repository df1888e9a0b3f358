#include "gaugepoint/quota/ClaudeStatusLineView.hpp"

#include <cmath>
#include <cstdio>

#include "gaugepoint/model/QuotaFormatting.hpp"
#include "gaugepoint/model/QuotaLanguagePreference.hpp"
#include "gaugepoint/platform/Text.hpp"
#include "gaugepoint/quota/QuotaReadingText.hpp"

namespace gaugepoint {
namespace {

// "Opus 4.1" as given; from an id, "claude-opus-4-1-20250805" reads "opus-4-1".
std::optional<std::string> shortModelName(const ClaudeStatusLineInput& input) {
    if (input.modelDisplayName) return singleLine(*input.modelDisplayName);
    if (!input.modelID) return std::nullopt;
    std::string id = singleLine(*input.modelID);
    if (id.starts_with("claude-")) id.erase(0, 7);
    if (id.size() > 9 && id[id.size() - 9] == '-' &&
        id.find_first_not_of("0123456789", id.size() - 8) == std::string::npos) {
        id.erase(id.size() - 9);
    }
    return id;
}

std::optional<ClaudeStatusLineWindow> windowOf(const QuotaProviderNow& now, std::int64_t minutes) {
    for (const auto& window : now.windows) {
        if (window.window.windowMinutes != minutes) continue;
        return ClaudeStatusLineWindow{window.window.usedPercent, window.window.resetsAt, window.estimated,
                                      window.resetPassed, window.pace};
    }
    return std::nullopt;
}

}  // namespace

ClaudeStatusLineView ClaudeStatusLineView::make(const ClaudeStatusLineInput& input, const ProviderQuota* claude,
                                                Date generatedAt, Date now, std::string_view language,
                                                const QuotaFreshnessPolicy& policy) {
    ClaudeStatusLineView view;
    view.language = std::string(language);
    view.model = shortModelName(input);
    view.contextPercent = input.contextUsedPercent;
    view.sessionCostUSD = input.sessionCostUSD;
    if (!claude || claude->windows.empty()) return view;
    const QuotaProviderNow reading = quotaProviderNow(*claude, generatedAt, now, policy);
    view.fiveHour = windowOf(reading, 300);
    view.sevenDay = windowOf(reading, 10080);
    view.observedAt = reading.observedAt;
    view.ageSeconds = std::int64_t(reading.ageSeconds);
    view.stale = reading.stale;
    if (const auto* constraining = reading.constraining()) {
        view.paceText = QuotaReadingText::paceText(*constraining, language);
        view.runsOut = constraining->pace && constraining->pace->runsOutAt.has_value();
    }
    return view;
}

namespace ClaudeStatusLineText {
namespace {

constexpr const char* kReset = "\033[0m";

// Green below 60 % used, yellow below 85 %, red from there.
const char* severityColour(double usedPercent) {
    return usedPercent >= 85 ? "\033[31m" : usedPercent >= 60 ? "\033[33m" : "\033[32m";
}

std::string coloured(std::string text, const char* colour, Style style) {
    if (style == Style::plain || text.empty()) return text;
    return colour + text + kReset;
}

std::string roundedPercent(double value) { return QuotaFormatting::percent(std::round(value)); }

std::string usd(double value) {
    char text[32];
    // A session's first cents still show: "$0.004" rather than "$0.00".
    std::snprintf(text, sizeof text, value < 0.01 && value > 0 ? "$%.3f" : "$%.2f", value);
    return text;
}

std::string windowPart(const std::optional<ClaudeStatusLineWindow>& window, std::string_view label,
                       const ClaudeStatusLineView& view, bool withReset, Style style) {
    if (!window) return {};
    std::string text = std::string(label) + " " + (window->estimated ? "~" : "") + roundedPercent(window->usedPercent);
    if (window->resetPassed) {
        text += isChineseLanguage(view.language) ? "（已重置）" : " (reset)";
    } else if (withReset && window->resetsAt) {
        text += " ↺" + QuotaReadingText::clockTime(*window->resetsAt);
    }
    return coloured(text, severityColour(window->usedPercent), style);
}

}  // namespace

const std::vector<std::string_view>& partNames() {
    static const std::vector<std::string_view> names{"model",        "context",    "five_hour", "weekly",
                                                     "pace",         "session_cost", "today_cost", "age"};
    return names;
}

std::string part(const ClaudeStatusLineView& view, std::string_view name, Style style) {
    const bool zh = isChineseLanguage(view.language);
    if (name == "model") return view.model ? coloured(*view.model, "\033[1m", style) : std::string();
    if (name == "context" && view.contextPercent) {
        return (zh ? "上下文 " : "ctx ") + roundedPercent(*view.contextPercent);
    }
    if (name == "five_hour") return windowPart(view.fiveHour, zh ? "5小时" : "5h", view, true, style);
    if (name == "weekly") return windowPart(view.sevenDay, zh ? "本周" : "wk", view, false, style);
    if (name == "pace" && view.paceText) {
        return coloured(*view.paceText, view.runsOut ? "\033[31m" : "\033[2m", style);
    }
    if (name == "session_cost" && view.sessionCostUSD) return usd(*view.sessionCostUSD);
    if (name == "today_cost" && view.todayCostUSD) return (zh ? "今日 " : "today ") + usd(*view.todayCostUSD);
    if (name == "age" && view.stale && view.ageSeconds) {
        return coloured(QuotaReadingText::asOf(double(*view.ageSeconds), view.language), "\033[2m", style);
    }
    return {};
}

std::string line(const ClaudeStatusLineView& view, Style style, std::string_view templateText) {
    std::string text;
    if (templateText.empty()) {
        for (const auto name : partNames()) {
            const std::string piece = part(view, name, style);
            if (piece.empty()) continue;
            text += (text.empty() ? "" : " · ") + piece;
        }
    } else {
        text = singleLine(templateText);  // the parts' own colour codes are added after this
        for (const auto name : partNames()) {
            const std::string placeholder = "{" + std::string(name) + "}";
            for (auto at = text.find(placeholder); at != std::string::npos; at = text.find(placeholder, at)) {
                const std::string piece = part(view, name, style);
                text.replace(at, placeholder.size(), piece);
                at += piece.size();
            }
        }
    }
    return trimmed(text).empty() ? "-" : text;
}

std::string fallbackLine(const ClaudeStatusLineInput& input, std::string_view language) {
    ClaudeStatusLineView view;
    view.language = std::string(language);
    view.model = shortModelName(input);
    view.contextPercent = input.contextUsedPercent;
    view.sessionCostUSD = input.sessionCostUSD;
    return line(view, Style::plain);
}

}  // namespace ClaudeStatusLineText
}  // namespace gaugepoint
