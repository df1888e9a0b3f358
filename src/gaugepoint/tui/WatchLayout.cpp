#include "gaugepoint/tui/WatchLayout.hpp"

#include <algorithm>
#include <cmath>
#include <functional>

#include "gaugepoint/model/QuotaFormatting.hpp"
#include "gaugepoint/quota/QuotaReadingText.hpp"
#include "gaugepoint/tui/WatchText.hpp"

namespace gaugepoint::tui {
namespace {

using WatchText::Phrase;

// Draws one panel's content at (x, y) within `width` columns; returns the rows used.
using PanelBody = std::function<int(TextCanvas&, int x, int y, int width, int maxRows)>;

struct Panel {
    WatchPanel id;
    std::string title;
    int rows;  // content rows wanted
    PanelBody body;
};

CellStyle severity(double usedPercent) {
    return usedPercent >= 80 ? CellStyle::bad : usedPercent >= 50 ? CellStyle::warn : CellStyle::good;
}

std::string phrase(Phrase which, const WatchModel& model) { return std::string(WatchText::phrase(which, model.language)); }

// "2026-11-06 21:00:05" in the model's zone.
std::string clockText(const WatchModel& model, const LocalCalendar& calendar) {
    const auto seconds = static_cast<long long>(std::floor(secondsSince1970(model.now)));
    char tail[4];
    std::snprintf(tail, sizeof tail, ":%02lld", ((seconds % 60) + 60) % 60);
    return calendar.dayTimeText(model.now) + tail;
}

LocalCalendar calendarOf(const WatchModel& model) {
    if (auto calendar = LocalCalendar::inTimeZone(model.timeZoneID, LocalCalendar::Kind::gregorian)) return *calendar;
    return LocalCalendar::current(LocalCalendar::Kind::gregorian);
}

// A bar of `width` cells filled to the used percent, with the even-burn pace mark.
void bar(TextCanvas& canvas, int x, int y, int width, const QuotaWindowNow& window) {
    const double used = std::clamp(window.window.usedPercent, 0.0, 100.0);
    const int filled = static_cast<int>(std::lround(used / 100 * width));
    for (int i = 0; i < width; ++i) {
        canvas.put(x + i, y, i < filled ? "█" : "░", i < filled ? severity(window.window.usedPercent) : CellStyle::dim);
    }
    if (window.pace) {
        const int mark = std::clamp(static_cast<int>(std::lround(window.pace->expectedPercent / 100 * width)), 0, width - 1);
        canvas.put(x + mark, y, "┃", CellStyle::mark);
    }
}

// "official" or "estimated" (a stale reading is marked once, on its card's title line).
std::string originText(const WatchModel& model, const QuotaWindowNow& window) {
    return phrase(window.estimated ? Phrase::estimated : Phrase::official, model);
}

std::string resetText(const WatchModel& model, const QuotaWindowNow& window) {
    if (window.resetPassed && window.window.resetsAt) {
        return QuotaReadingText::resetPassed(*window.window.resetsAt, model.now, model.language);
    }
    return QuotaFormatting::resetRelativeText(window.window.resetsAt, model.now, model.language);
}

int cardRows(const std::vector<WatchProviderCard>& cards) {
    int rows = 0;
    for (const auto& card : cards) rows += 1 + static_cast<int>(card.windows.size());
    return rows;
}

int drawCards(const WatchModel& model, const std::vector<WatchProviderCard>& cards, TextCanvas& canvas, int x, int y,
              int width, int maxRows) {
    if (cards.empty()) {
        canvas.put(x, y, phrase(Phrase::noQuota, model), CellStyle::dim, x + width);
        return 1;
    }
    int row = 0;
    const int labelWidth = 14;
    const int barWidth = std::clamp(width / 4, 8, 40);
    for (const auto& card : cards) {
        if (row >= maxRows) break;
        int at = canvas.put(x, y + row, card.name, CellStyle::title, x + width);
        at = canvas.put(at + 2, y + row, QuotaReadingText::asOf(card.reading.ageSeconds, model.language), CellStyle::dim,
                        x + width);
        if (card.reading.stale) canvas.put(at + 2, y + row, phrase(Phrase::stale, model), CellStyle::warn, x + width);
        ++row;
        for (const auto& window : card.windows) {
            if (row >= maxRows) break;
            const int line = y + row++;
            canvas.put(x + 2, line, window.label, CellStyle::normal, x + 2 + labelWidth - 1);
            int col = x + 2 + labelWidth;
            bar(canvas, col, line, barWidth, window.now);
            col += barWidth + 1;
            std::string percent = QuotaFormatting::percent(window.now.window.usedPercent);
            percent.insert(0, std::max(0, 6 - static_cast<int>(percent.size())), ' ');
            col = canvas.put(col, line, percent, severity(window.now.window.usedPercent), x + width);
            col = canvas.put(col + 2, line, resetText(model, window.now), CellStyle::normal, x + width);
            // A window whose reset passed has no reading since: its origin and pace say nothing.
            if (window.now.resetPassed) continue;
            std::string tail = originText(model, window.now);
            if (const auto pace = QuotaReadingText::paceSummary(window.now, model.language)) tail += " · " + *pace;
            canvas.put(col + 2, line, tail, window.now.estimated ? CellStyle::warn : CellStyle::dim, x + width);
        }
    }
    return row;
}

int drawBlocks(const WatchModel& model, TextCanvas& canvas, int x, int y, int width, int maxRows) {
    if (model.blocks.empty()) {
        canvas.put(x, y, phrase(Phrase::noBlock, model), CellStyle::dim, x + width);
        return 1;
    }
    const auto calendar = calendarOf(model);
    int row = 0;
    for (const auto& entry : model.blocks) {
        if (row >= maxRows) break;
        const auto& block = entry.block;
        int at = canvas.put(x, y + row, entry.name, CellStyle::title, x + width);
        at = canvas.put(std::max(at + 1, x + 8), y + row,
                        WatchText::tokens(block.totals.tokens.totalTokens()) + " " + phrase(Phrase::tokens, model),
                        CellStyle::normal, x + width);
        at = canvas.put(at + 2, y + row, WatchText::dollars(block.totals.totalCost), CellStyle::normal, x + width);
        canvas.put(at + 2, y + row, phrase(Phrase::by, model) + " " + calendar.dayTimeText(block.endTime).substr(11),
                   CellStyle::dim, x + width);
        ++row;
        if (row >= maxRows || !block.burnRate) continue;
        std::string rate = "  " + WatchText::tokens(std::llround(block.burnRate->tokensPerMinute * 60)) + " " +
                           phrase(Phrase::tokens, model) + phrase(Phrase::perHour, model) + " · " +
                           WatchText::dollars(block.burnRate->costPerHour) + phrase(Phrase::perHour, model);
        if (block.projection) {
            rate += " " + phrase(Phrase::projected, model) + " " + WatchText::tokens(block.projection->totalTokens) + " " +
                    WatchText::dollars(block.projection->totalCost);
        }
        canvas.put(x, y + row++, rate, CellStyle::normal, x + width);
    }
    return row;
}

int drawToday(const WatchModel& model, TextCanvas& canvas, int x, int y, int width, int maxRows) {
    int row = 0;
    std::int64_t tokens = 0;
    double cost = 0;
    const auto line = [&](const std::string& name, std::int64_t t, double c, CellStyle style) {
        if (row >= maxRows) return;
        canvas.put(x, y + row, name, style, x + width);
        std::string figures = WatchText::tokens(t) + " " + phrase(Phrase::tokens, model);
        figures.insert(0, std::max(0, 11 - static_cast<int>(figures.size())), ' ');
        std::string money = WatchText::dollars(c);
        money.insert(0, std::max(0, 10 - static_cast<int>(money.size())), ' ');
        canvas.put(x + 8, y + row++, figures + money, style, x + width);
    };
    if (model.today.empty() && row < maxRows) canvas.put(x, y + row++, phrase(Phrase::noUsageToday, model), CellStyle::dim, x + width);
    for (const auto& tool : model.today) {
        line(tool.name, tool.tokens, tool.cost, CellStyle::normal);
        tokens += tool.tokens;
        cost += tool.cost;
    }
    if (model.today.size() > 1) line(phrase(Phrase::total, model), tokens, cost, CellStyle::title);
    if (row < maxRows && !model.dailyCost.empty()) {
        const double top = *std::max_element(model.dailyCost.begin(), model.dailyCost.end());
        int at = canvas.put(x, y + row, phrase(Phrase::days14, model), CellStyle::dim, x + width);
        at = canvas.put(std::max(at + 1, x + 8), y + row, WatchText::sparkline(model.dailyCost), CellStyle::good, x + width);
        canvas.put(at + 1, y + row++, "max " + WatchText::dollars(top), CellStyle::dim, x + width);
    }
    return row;
}

int drawSessions(const WatchModel& model, TextCanvas& canvas, int x, int y, int width, int maxRows) {
    if (model.sessions.empty()) {
        canvas.put(x, y, phrase(Phrase::noSessions, model), CellStyle::dim, x + width);
        return 1;
    }
    const auto calendar = calendarOf(model);
    int row = 0;
    for (const auto& session : model.sessions) {
        if (row >= maxRows) break;
        const int line = y + row++;
        canvas.put(x, line, calendar.dayTimeText(session.lastActivity).substr(11), CellStyle::dim, x + width);
        canvas.put(x + 7, line, session.providerID, CellStyle::normal, x + width);
        std::string figures = WatchText::tokens(session.tokens) + " " + phrase(Phrase::tokens, model);
        figures.insert(0, std::max(0, 11 - static_cast<int>(figures.size())), ' ');
        std::string money = WatchText::dollars(session.cost);
        money.insert(0, std::max(0, 10 - static_cast<int>(money.size())), ' ');
        const int figuresAt = std::max(x + 16, x + width - 21);
        canvas.put(x + 15, line, session.project, CellStyle::title, figuresAt - 1);
        canvas.put(figuresAt, line, figures + money, CellStyle::normal, x + width);
    }
    return row;
}

int drawMachines(const WatchModel& model, TextCanvas& canvas, int x, int y, int width, int maxRows) {
    int row = 0;
    for (const auto& machine : model.machines) {
        if (row >= maxRows) break;
        int at = canvas.put(x, y + row, machine.name, CellStyle::title, x + width);
        at = canvas.put(at + 2, y + row, QuotaReadingText::asOf(machine.ageSeconds, model.language), CellStyle::dim, x + width);
        for (const auto& card : machine.providers) {
            // The window that constrains the machine's provider most.
            if (!card.reading.constrainingIndex) continue;
            const auto& window = card.windows[*card.reading.constrainingIndex];
            at = canvas.put(at + 2, y + row,
                            card.name + " " + window.label + " " + QuotaFormatting::percent(window.now.window.usedPercent),
                            severity(window.now.window.usedPercent), x + width);
        }
        ++row;
    }
    return row;
}

std::vector<Panel> panelsOf(const WatchModel& model) {
    std::vector<Panel> panels;
    panels.push_back({WatchPanel::quota, phrase(Phrase::quota, model), std::max(1, cardRows(model.cards)),
                      [&model](TextCanvas& c, int x, int y, int w, int m) { return drawCards(model, model.cards, c, x, y, w, m); }});
    int blockRows = 0;
    for (const auto& b : model.blocks) blockRows += b.block.burnRate ? 2 : 1;
    panels.push_back({WatchPanel::blocks, phrase(Phrase::blocks, model), std::max(1, blockRows),
                      [&model](TextCanvas& c, int x, int y, int w, int m) { return drawBlocks(model, c, x, y, w, m); }});
    const int todayRows = std::max<int>(1, static_cast<int>(model.today.size())) + (model.today.size() > 1 ? 1 : 0) + 1;
    panels.push_back({WatchPanel::today, phrase(Phrase::today, model), todayRows,
                      [&model](TextCanvas& c, int x, int y, int w, int m) { return drawToday(model, c, x, y, w, m); }});
    panels.push_back({WatchPanel::sessions, phrase(Phrase::sessions, model),
                      std::max(1, static_cast<int>(model.sessions.size())),
                      [&model](TextCanvas& c, int x, int y, int w, int m) { return drawSessions(model, c, x, y, w, m); }});
    if (!model.machines.empty()) {
        panels.push_back({WatchPanel::machines, phrase(Phrase::machines, model), static_cast<int>(model.machines.size()),
                          [&model](TextCanvas& c, int x, int y, int w, int m) { return drawMachines(model, c, x, y, w, m); }});
    }
    return panels;
}

void drawHeader(const WatchModel& model, TextCanvas& canvas) {
    int at = canvas.put(0, 0, "gaugepoint watch", CellStyle::title);
    const std::string filter = model.providerFilter ? *model.providerFilter : phrase(Phrase::allTools, model);
    canvas.put(at + 2, 0, filter + " · " + model.timeZoneID + " · " + clockText(model, calendarOf(model)), CellStyle::dim);
}

// The update time and the keys, or what could not be read in place of the keys.
void drawFooter(const WatchModel& model, TextCanvas& canvas, int y, bool compact) {
    const std::string updated = phrase(Phrase::updated, model) + " " + clockText(model, calendarOf(model)).substr(11);
    const int at = canvas.put(0, y, updated, CellStyle::dim);
    if (!model.problems.empty()) {
        canvas.put(at + 2, y, model.problems.front(), CellStyle::bad);
        return;
    }
    canvas.put(at + 2, y, phrase(compact ? Phrase::keysShort : Phrase::keys, model), CellStyle::dim);
}

void drawHelp(const WatchModel& model, TextCanvas& canvas) {
    std::vector<std::string> lines;
    const std::string all{WatchText::phrase(Phrase::helpLines, model.language)};
    for (std::size_t start = 0; start <= all.size();) {
        const auto end = std::min(all.find('\n', start), all.size());
        lines.push_back(all.substr(start, end - start));
        start = end + 1;
    }
    const int width = std::min(canvas.width(), 44);
    const int height = std::min(canvas.height(), static_cast<int>(lines.size()) + 2);
    const int x = (canvas.width() - width) / 2;
    const int y = (canvas.height() - height) / 2;
    for (int row = y; row < y + height; ++row) {
        for (int col = x; col < x + width; ++col) canvas.put(col, row, " ");
    }
    canvas.box(x, y, width, height, phrase(Phrase::help, model), true);
    for (int i = 0; i < height - 2; ++i) canvas.put(x + 2, y + 1 + i, lines[static_cast<std::size_t>(i)], CellStyle::normal, x + width - 1);
}

// One column without boxes: every window on a line of its own, then a line each for the
// blocks, today and the sessions.
void layoutCompact(const WatchModel& model, TextCanvas& canvas) {
    const int width = canvas.width();
    const int last = canvas.height() - 1;
    int row = 0;
    canvas.put(0, row++, "gaugepoint · " + clockText(model, calendarOf(model)).substr(11) + " · " +
                             (model.providerFilter ? *model.providerFilter : phrase(Phrase::allTools, model)),
               CellStyle::title);
    for (const auto& card : model.cards) {
        for (const auto& window : card.windows) {
            if (row >= last) break;
            int at = canvas.put(0, row, card.name + " " + window.now.window.widgetLabel(), CellStyle::normal);
            at = std::max(at + 1, 12);
            const int barWidth = std::clamp(width / 5, 4, 12);
            bar(canvas, at, row, barWidth, window.now);
            at = canvas.put(at + barWidth + 1, row, QuotaFormatting::percent(window.now.window.usedPercent),
                            severity(window.now.window.usedPercent));
            canvas.put(at + 1, row++,
                       QuotaFormatting::resetRelativeText(window.now.window.resetsAt, model.now, model.language,
                                                          QuotaFormatting::ResetRelativeStyle::compact) +
                           (window.now.estimated ? " · " + phrase(Phrase::estimated, model) : "") +
                           (card.reading.stale ? " · " + phrase(Phrase::stale, model) : ""),
                       CellStyle::dim);
        }
    }
    if (model.cards.empty() && row < last) canvas.put(0, row++, phrase(Phrase::noQuota, model), CellStyle::dim);
    for (const auto& entry : model.blocks) {
        if (row >= last) break;
        std::string text = entry.name + " " + WatchText::tokens(entry.block.totals.tokens.totalTokens()) + " " +
                           WatchText::dollars(entry.block.totals.totalCost);
        if (entry.block.burnRate) text += " · " + WatchText::dollars(entry.block.burnRate->costPerHour) + phrase(Phrase::perHour, model);
        canvas.put(0, row++, "5h " + text);
    }
    if (row < last) {
        std::int64_t tokens = 0;
        double cost = 0;
        for (const auto& tool : model.today) {
            tokens += tool.tokens;
            cost += tool.cost;
        }
        const int at = canvas.put(0, row, phrase(Phrase::today, model) + " " + WatchText::tokens(tokens) + " " + WatchText::dollars(cost));
        canvas.put(at + 1, row++, WatchText::sparkline(model.dailyCost), CellStyle::good);
    }
    if (row < last) {
        canvas.put(0, row++, phrase(Phrase::sessions, model) + ": " + std::to_string(model.sessions.size()), CellStyle::dim);
    }
    drawFooter(model, canvas, last, true);
}

// Boxed panels between header and footer: each as tall as its content while the screen has
// room, the later ones keeping at least a border and one row; with `fill`, the sessions panel
// takes the rows left over.
void layoutBoxed(const WatchModel& model, TextCanvas& canvas, const WatchViewState& state, bool fill) {
    const int width = canvas.width();
    const int footer = canvas.height() - 1;
    drawHeader(model, canvas);
    auto panels = panelsOf(model);
    // blocks and today share a row of two boxes.
    struct Row {
        std::vector<const Panel*> boxes;
        int rows;
    };
    std::vector<Row> rows;
    for (std::size_t i = 0; i < panels.size(); ++i) {
        if (panels[i].id == WatchPanel::blocks && i + 1 < panels.size()) {
            rows.push_back({{&panels[i], &panels[i + 1]}, std::max(panels[i].rows, panels[i + 1].rows)});
            ++i;
        } else {
            rows.push_back({{&panels[i]}, panels[i].rows});
        }
    }
    int y = 1;
    for (std::size_t r = 0; r < rows.size(); ++r) {
        int wantedAfter = 0;
        for (std::size_t later = r + 1; later < rows.size(); ++later) wantedAfter += rows[later].rows + 2;
        const int reservedAfter = 3 * static_cast<int>(rows.size() - r - 1);
        int height = std::min(rows[r].rows + 2, footer - y - reservedAfter);
        // The sessions take what the screen has to spare: the list grows without a jump.
        if (fill && rows[r].boxes.front()->id == WatchPanel::sessions) height = std::max(height, footer - y - wantedAfter);
        if (height < 3) break;
        const int count = static_cast<int>(rows[r].boxes.size());
        for (int b = 0; b < count; ++b) {
            const Panel& panel = *rows[r].boxes[static_cast<std::size_t>(b)];
            const int x = width * b / count;
            const int boxWidth = width * (b + 1) / count - x;
            canvas.box(x, y, boxWidth, height, panel.title, panel.id == state.focus);
            panel.body(canvas, x + 2, y + 1, boxWidth - 4, height - 2);
        }
        y += height;
    }
    drawFooter(model, canvas, footer, false);
}

int naturalHeight(const WatchModel& model) {
    const auto panels = panelsOf(model);
    int height = 2;  // header and footer
    for (std::size_t i = 0; i < panels.size(); ++i) {
        if (panels[i].id == WatchPanel::blocks && i + 1 < panels.size()) {
            height += std::max(panels[i].rows, panels[i + 1].rows) + 2;
            ++i;
        } else {
            height += panels[i].rows + 2;
        }
    }
    return height;
}

}  // namespace

std::vector<WatchPanel> watchPanels(const WatchModel& model) {
    std::vector<WatchPanel> ids;
    for (const auto& panel : panelsOf(model)) ids.push_back(panel.id);
    return ids;
}

TextCanvas layoutWatch(const WatchModel& model, int width, int height, const WatchViewState& state) {
    TextCanvas canvas{width, height};
    if (width <= 0 || height <= 0) return canvas;
    if (width <= kCompactWidth || height <= kCompactHeight) {
        layoutCompact(model, canvas);
    } else {
        layoutBoxed(model, canvas, state, true);
    }
    if (state.help) drawHelp(model, canvas);
    return canvas;
}

std::string watchPlainText(const WatchModel& model, int width) {
    if (width <= kCompactWidth) {
        TextCanvas canvas{width, 4 + cardRows(model.cards) + static_cast<int>(model.blocks.size()) + 2};
        layoutCompact(model, canvas);
        return canvas.text();
    }
    TextCanvas canvas{width, naturalHeight(model)};
    layoutBoxed(model, canvas, WatchViewState{}, false);
    return canvas.text();
}

}  // namespace gaugepoint::tui
