#pragma once

// Tables and colour for people. A table fits the terminal: its width is COLUMNS when set, else
// the terminal's when standard output is one, else unlimited (a pipe keeps the full layout).
// Below 100 columns, or with --compact, the columns a table marks optional are left out; what
// is still too wide is cut in the columns it marks shrinkable ("claude-sonnet-4-5, gpt…").
// --wide keeps everything. Colour (bold headers and totals, the "*" of unpriced costs, the
// severity of percents) only on a terminal, never under NO_COLOR or --no-color.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace gaugepoint::cli {

struct GlobalOptions;

struct OutputStyle {
    std::optional<std::size_t> width;  // none: as wide as the content
    bool compact = false;              // leave out optional columns
    bool wide = false;                 // never leave out or cut
    bool colour = false;

    // The style of this process, from the global options and the environment; set once by main.
    static const OutputStyle& current();
    static void configure(const GlobalOptions& globals);
    static void set(const OutputStyle& style);  // for tests of the formatting
};

// ANSI colours, or the text unchanged when the current style has none.
namespace Ansi {
std::string bold(std::string_view text);
std::string dim(std::string_view text);
std::string yellow(std::string_view text);
// Green below 50 % used, yellow below 80 %, red from there.
std::string bySeverity(std::string_view text, double usedPercent);
}  // namespace Ansi

struct TableFormat {
    TableFormat(std::vector<bool> right = {}, std::vector<bool> optionalColumns = {}, std::vector<bool> shrinkableColumns = {})
        : rightAligned(std::move(right)), optional(std::move(optionalColumns)), shrinkable(std::move(shrinkableColumns)) {}

    std::vector<bool> rightAligned;     // per column
    std::vector<bool> optional;         // per column: left out in the compact layout
    std::vector<bool> shrinkable;       // per column: cut with "…" to fit the width
    bool header = true;                 // the first row names the columns
    bool totalRow = false;              // the last row is a total
};

// `rows` as aligned text, columns two blanks apart, fitted to `style`. Rows may be shorter than
// the header (trailing cells empty). A header without rows gives nothing: an empty result is
// said once, by the count line that follows every table.
std::string renderTable(const std::vector<std::vector<std::string>>& rows, const TableFormat& format,
                        const OutputStyle& style = OutputStyle::current());

}  // namespace gaugepoint::cli
