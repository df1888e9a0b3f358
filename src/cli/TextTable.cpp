#include "TextTable.hpp"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <numeric>

#include "CommandSupport.hpp"
#include "gaugepoint/platform/Text.hpp"

namespace gaugepoint::cli {
namespace {

constexpr std::size_t kCompactBelow = 100;
constexpr std::size_t kGap = 2;
constexpr std::size_t kShrunkMinimum = 8;

OutputStyle& processStyle() {
    static OutputStyle style;
    return style;
}

std::optional<std::size_t> terminalWidth() {
    if (const char* columns = std::getenv("COLUMNS"); columns && *columns) {
        std::size_t width = 0;
        const auto end = columns + std::char_traits<char>::length(columns);
        if (const auto [at, error] = std::from_chars(columns, end, width); error == std::errc() && at == end && width > 0) {
            return width;
        }
    }
    winsize size{};
    if (::isatty(STDOUT_FILENO) == 1 && ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
        return std::size_t(size.ws_col);
    }
    return std::nullopt;
}

std::string coloured(std::string_view text, const char* code) {
    if (!OutputStyle::current().colour || text.empty()) return std::string(text);
    return std::string(code) + std::string(text) + "\033[0m";
}

bool flag(const std::vector<bool>& flags, std::size_t i) { return i < flags.size() && flags[i]; }

// The columns shown: all, or without the optional ones in the compact layout.
std::vector<std::size_t> shownColumns(std::size_t count, const TableFormat& format, bool compact) {
    std::vector<std::size_t> shown;
    for (std::size_t i = 0; i < count; ++i) {
        if (!(compact && flag(format.optional, i))) shown.push_back(i);
    }
    return shown;
}

// Narrows the shrinkable columns, widest first, until the table fits `width` or none can give.
void shrinkToFit(std::vector<std::size_t>& widths, const std::vector<std::size_t>& shown, const TableFormat& format,
                 std::size_t width) {
    const auto total = [&] {
        std::size_t sum = 0;
        for (auto i : shown) sum += widths[i];
        return sum + kGap * (shown.empty() ? 0 : shown.size() - 1);
    };
    while (total() > width) {
        std::size_t widest = SIZE_MAX;
        for (auto i : shown) {
            if (flag(format.shrinkable, i) && widths[i] > kShrunkMinimum && (widest == SIZE_MAX || widths[i] > widths[widest])) {
                widest = i;
            }
        }
        if (widest == SIZE_MAX) return;
        widths[widest] -= std::min(widths[widest] - kShrunkMinimum, total() - width);
    }
}

}  // namespace

const OutputStyle& OutputStyle::current() { return processStyle(); }

void OutputStyle::set(const OutputStyle& style) { processStyle() = style; }

void OutputStyle::configure(const GlobalOptions& globals) {
    OutputStyle style;
    style.wide = globals.wide;
    style.width = terminalWidth();
    style.compact = globals.compact || (!globals.wide && style.width && *style.width < kCompactBelow);
    const char* noColor = std::getenv("NO_COLOR");
    style.colour = !globals.noColor && !(noColor && *noColor) && ::isatty(STDOUT_FILENO) == 1;
    processStyle() = style;
}

namespace Ansi {
std::string bold(std::string_view text) { return coloured(text, "\033[1m"); }
std::string dim(std::string_view text) { return coloured(text, "\033[2m"); }
std::string yellow(std::string_view text) { return coloured(text, "\033[33m"); }
std::string bySeverity(std::string_view text, double usedPercent) {
    return coloured(text, usedPercent >= 80 ? "\033[31m" : usedPercent >= 50 ? "\033[33m" : "\033[32m");
}
}  // namespace Ansi

std::string renderTable(const std::vector<std::vector<std::string>>& rows, const TableFormat& format,
                        const OutputStyle& style) {
    if (format.header && rows.size() <= 1) return {};
    std::size_t columns = 0;
    for (const auto& row : rows) columns = std::max(columns, row.size());
    std::vector<std::size_t> widths(columns, 0);
    for (const auto& row : rows) {
        for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], displayWidth(singleLine(row[i])));
    }
    const auto shown = shownColumns(columns, format, style.compact && !style.wide);
    if (style.width && !style.wide) shrinkToFit(widths, shown, format, *style.width);
    std::string text;
    for (std::size_t r = 0; r < rows.size(); ++r) {
        const auto& row = rows[r];
        std::string line;
        for (std::size_t n = 0; n < shown.size(); ++n) {
            const std::size_t i = shown[n];
            std::string cell = i < row.size() ? singleLine(row[i]) : "";
            if (displayWidth(cell) > widths[i]) cell = truncatedToWidth(cell, widths[i]);
            const std::size_t fill = widths[i] - displayWidth(cell);
            const bool right = flag(format.rightAligned, i);
            if (right) line.append(fill, ' ');
            if (style.colour && !cell.empty() && cell.back() == '*') {
                cell = cell.substr(0, cell.size() - 1) + Ansi::yellow("*");
            }
            line += cell;
            if (!right && n + 1 < shown.size()) line.append(fill, ' ');
            if (n + 1 < shown.size()) line.append(kGap, ' ');
        }
        while (!line.empty() && line.back() == ' ') line.pop_back();  // an empty last cell leaves no blanks
        const bool emphasised = (format.header && r == 0) || (format.totalRow && r + 1 == rows.size());
        text += (emphasised ? Ansi::bold(line) : line) + "\n";
    }
    return text;
}

}  // namespace gaugepoint::cli
