#include "gaugepoint/widgets/QuotaWidgetText.hpp"

#include <algorithm>
#include <array>
#include <cmath>

#include "gaugepoint/model/QuotaLanguagePreference.hpp"
#include "gaugepoint/platform/JsonWriter.hpp"
#include "gaugepoint/platform/Text.hpp"

namespace gaugepoint::QuotaWidgetText {
namespace {

// The window that decides the provider's headline: the one with the least left.
const QuotaWidgetWindowView* headlineWindow(const QuotaWidgetProviderView& provider) {
    for (const auto& window : provider.windows) {
        if (provider.headlineWindowID && window.id == *provider.headlineWindowID) return &window;
    }
    return nullptr;
}

std::string remainingPhrase(const QuotaWidgetWindowView& window, std::string_view language) {
    return isChineseLanguage(language) ? "剩余 " + window.remainingText : window.remainingText + " left";
}

// "5h", or "5h est." for an estimate of ours.
std::string labelOf(const QuotaWidgetWindowView& window, std::string_view language) {
    if (window.reading != "estimated") return singleLine(window.label);
    return singleLine(window.label) + (isChineseLanguage(language) ? " 估算" : " est.");
}

// What follows a window's reset: its pace (with `summary`, also when it only says "12% ahead")
// and, for a stale provider, how old the reading is.
std::string notes(const QuotaWidgetProviderView& provider, const QuotaWidgetWindowView* window, bool summary,
                  std::string_view language) {
    std::string text;
    const auto add = [&text](const std::string& part) { text += (text.empty() ? "" : " · ") + part; };
    if (window && window->paceText && (summary || (window->pace && window->pace->runsOutAt))) {
        const std::string& pace = *window->paceText;
        const auto runsOut = pace.find(isChineseLanguage(language) ? "约 " : "runs out");
        add(summary || runsOut == std::string::npos ? pace : pace.substr(runsOut));
    }
    if (provider.ageText) add(*provider.ageText);
    return text;
}

// The money or credit text of a provider, or, when it has no window, its usage or its status.
std::optional<std::string> extraText(const QuotaWidgetProviderView& provider, bool hasWindow) {
    if (provider.balanceText) return provider.balanceText;
    if (provider.creditsText) return provider.creditsText;
    if (!hasWindow) return provider.usageText ? provider.usageText : provider.status;
    return std::nullopt;
}

// The cells of one line: name, label, remaining, reset, extra, notes.
using Row = std::array<std::string, 6>;

// Names and labels come from files other programs write: none may break the line.
Row rowFor(const QuotaWidgetProviderView& provider, std::string_view language) {
    const QuotaWidgetWindowView* top = headlineWindow(provider);
    Row row{singleLine(provider.displayName), "", "", "", singleLine(extraText(provider, top != nullptr).value_or("")),
            notes(provider, top, true, language)};
    if (top) {
        row[1] = labelOf(*top, language);
        row[2] = remainingPhrase(*top, language);
        row[3] = top->resetText == "-" ? "" : top->resetText;
    }
    return row;
}

void pad(std::string& out, const std::string& cell, std::size_t width, bool right = false) {
    const std::size_t fill = width - std::min(width, displayWidth(cell));
    if (right) out.append(fill, ' ');
    out += cell;
    if (!right) out.append(fill, ' ');
}

std::string render(const Row& row, const std::array<std::size_t, 6>& widths, bool aligned) {
    const std::string gap = aligned ? "  " : " ";
    const std::string dot = aligned ? "  ·  " : " · ";
    std::string line;
    pad(line, row[0], aligned ? widths[0] : 0);
    if (!row[2].empty()) {
        line += gap;
        pad(line, row[1], aligned ? widths[1] : 0);
        line += gap;
        pad(line, row[2], aligned ? widths[2] : 0, true);
        if (!row[3].empty()) {
            line += dot;
            pad(line, row[3], aligned && !row[4].empty() ? widths[3] : 0);
        } else if (aligned && !row[4].empty() && widths[3] > 0) {
            line.append(displayWidth(dot) + widths[3], ' ');  // keep the credit texts in their column
        }
        if (!row[4].empty()) line += dot + row[4];
    } else if (!row[4].empty()) {
        line += gap + row[4];
    }
    if (!row[5].empty()) line += dot + row[5];
    while (!line.empty() && line.back() == ' ') line.pop_back();
    return line;
}

}  // namespace

std::string providerLines(const QuotaWidgetView& view, bool aligned) {
    std::vector<Row> rows;
    std::array<std::size_t, 6> widths{};
    for (const auto& provider : view.providers) {
        rows.push_back(rowFor(provider, view.language));
        const Row& row = rows.back();
        for (std::size_t i = 0; i < 5; ++i) {
            // The reset column is padded only to line up the credit texts that follow it.
            if (i == 3 && row[4].empty()) continue;
            widths[i] = std::max(widths[i], displayWidth(row[i]));
        }
    }
    std::string text;
    for (const auto& row : rows) text += render(row, widths, aligned) + "\n";
    return text;
}

namespace {

// The window with the least left of any provider, and its provider; nulls when none has one.
std::pair<const QuotaWidgetProviderView*, const QuotaWidgetWindowView*> tightest(const QuotaWidgetView& view) {
    const QuotaWidgetProviderView* tightestProvider = nullptr;
    const QuotaWidgetWindowView* tightestWindow = nullptr;
    for (const auto& provider : view.providers) {
        for (const auto& window : provider.windows) {
            if (!tightestWindow || window.remainingPercent < tightestWindow->remainingPercent) {
                tightestProvider = &provider;
                tightestWindow = &window;
            }
        }
    }
    return {tightestProvider, tightestWindow};
}

// The first provider's money, credits or status, for views without any window.
std::string withoutWindowText(const QuotaWidgetView& view) {
    if (view.providers.empty()) return "-";
    const auto& first = view.providers.front();
    return singleLine(first.displayName + " " + extraText(first, false).value_or("-"));
}

// Every provider's line, each followed by its other windows ("  1w 36.5% left · refresh in 3d").
std::string tooltipText(const QuotaWidgetView& view) {
    std::string text;
    for (const auto& provider : view.providers) {
        const QuotaWidgetWindowView* top = headlineWindow(provider);
        text += render(rowFor(provider, view.language), {}, false) + "\n";
        for (const auto& window : provider.windows) {
            if (&window == top) continue;
            text += "  " + labelOf(window, view.language) + " " + remainingPhrase(window, view.language);
            if (window.resetText != "-") text += " · " + window.resetText;
            if (window.paceText) text += " · " + *window.paceText;
            text += "\n";
        }
    }
    if (!text.empty()) text.pop_back();
    return text;
}

}  // namespace

std::string statusLine(const QuotaWidgetView& view) {
    const auto [provider, window] = tightest(view);
    if (!window) return withoutWindowText(view);
    std::string line = singleLine(provider->displayName) + " " + labelOf(*window, view.language) + " " +
                       remainingPhrase(*window, view.language);
    if (!window->resetCompactText.empty() && window->resetCompactText != "-") line += " · " + window->resetCompactText;
    if (const std::string more = notes(*provider, window, false, view.language); !more.empty()) line += " · " + more;
    return singleLine(line);
}

WaybarModule waybarModule(const QuotaWidgetView& view) {
    const auto [tightestProvider, tightestWindow] = tightest(view);
    WaybarModule module;
    module.tooltip = tooltipText(view);
    if (!tightestWindow) {
        module.cssClass = "ok";
        module.text = withoutWindowText(view);
        return module;
    }
    const double lowest = tightestWindow->remainingPercent;
    module.text = singleLine(tightestProvider->displayName) + " " + labelOf(*tightestWindow, view.language) + " " +
                  tightestWindow->remainingText;
    module.stale = tightestProvider->stale;
    // The class follows the number the bar shows, so 74.6 % used (25 shown) is a warning.
    const int shown = std::isnan(lowest) ? 0 : static_cast<int>(std::clamp(std::round(lowest), 0.0, 100.0));
    module.cssClass = shown <= 10 ? "critical" : shown <= 25 ? "warning" : "ok";
    module.percentage = shown;
    return module;
}

std::string waybarJSON(const WaybarModule& module) {
    json::JsonWriter writer;
    writer.beginObject();
    writer.key("text");
    writer.string(module.text);
    writer.key("tooltip");
    writer.string(module.tooltip);
    writer.key("class");
    if (module.stale) {  // Waybar takes a list of classes as well as one
        writer.beginArray();
        writer.string(module.cssClass);
        writer.string("stale");
        writer.endArray();
    } else {
        writer.string(module.cssClass);
    }
    if (module.percentage) {
        writer.key("percentage");
        writer.integer(*module.percentage);
    }
    writer.endObject();
    return writer.take();
}

}  // namespace gaugepoint::QuotaWidgetText
