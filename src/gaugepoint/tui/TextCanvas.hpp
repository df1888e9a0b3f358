#pragma once

// A grid of terminal cells that the watch view is laid out on, shared by the plain-text form
// and the ncurses screen so both show the same thing. A wide (CJK) character takes two cells,
// the second marked as its continuation, so columns stay aligned whatever the language.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace gaugepoint::tui {

// How a run of cells is shown on a terminal; the plain-text form ignores it.
enum class CellStyle : std::uint8_t { normal, dim, title, focused, good, warn, bad, mark };

struct Cell {
    std::string glyph = " ";  // one character with its combining marks, UTF-8; empty: continuation
    CellStyle style = CellStyle::normal;
};

class TextCanvas {
public:
    TextCanvas(int width, int height);

    int width() const { return width_; }
    int height() const { return height_; }
    const Cell& at(int x, int y) const { return cells_[static_cast<std::size_t>(y * width_ + x)]; }

    // Writes `text` from column x of row y, clipped at `maxX` (exclusive; default: the right
    // edge). Control characters show as blanks. Returns the column after the text.
    int put(int x, int y, std::string_view text, CellStyle style = CellStyle::normal, int maxX = -1);
    // A box of light lines with `title` set into its top edge.
    void box(int x, int y, int width, int height, std::string_view title, bool focused);

    // Row y as text, trailing blanks removed.
    std::string row(int y) const;
    // Every row, each ending in a line feed; trailing empty rows left out.
    std::string text() const;

private:
    void set(int x, int y, std::string glyph, CellStyle style);
    int width_;
    int height_;
    std::vector<Cell> cells_;
};

}  // namespace gaugepoint::tui
