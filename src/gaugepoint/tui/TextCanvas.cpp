#include "gaugepoint/tui/TextCanvas.hpp"

#include <algorithm>

#include "gaugepoint/platform/Text.hpp"

namespace gaugepoint::tui {
namespace {

// The length of the UTF-8 sequence that begins with `lead` (1 for a stray byte).
std::size_t sequenceLength(unsigned char lead) {
    if (lead >= 0xF0 && lead < 0xF8) return 4;
    if (lead >= 0xE0) return lead < 0xF0 ? 3 : 1;
    if (lead >= 0xC0) return 2;
    return 1;
}

}  // namespace

TextCanvas::TextCanvas(int width, int height)
    : width_(std::max(width, 0)), height_(std::max(height, 0)),
      cells_(static_cast<std::size_t>(width_) * static_cast<std::size_t>(height_)) {}

void TextCanvas::set(int x, int y, std::string glyph, CellStyle style) {
    auto& cell = cells_[static_cast<std::size_t>(y * width_ + x)];
    cell.glyph = std::move(glyph);
    cell.style = style;
}

int TextCanvas::put(int x, int y, std::string_view text, CellStyle style, int maxX) {
    if (y < 0 || y >= height_) return x;
    const int limit = maxX < 0 ? width_ : std::min(maxX, width_);
    int lastX = -1;  // the cell of the previous character, for combining marks
    for (std::size_t offset = 0; offset < text.size();) {
        const std::size_t length = std::min(sequenceLength(static_cast<unsigned char>(text[offset])), text.size() - offset);
        std::string glyph{singleLine(text.substr(offset, length))};
        offset += length;
        const auto columns = static_cast<int>(displayWidth(glyph));
        if (columns == 0) {
            if (lastX >= 0 && lastX < limit) cells_[static_cast<std::size_t>(y * width_ + lastX)].glyph += glyph;
            continue;
        }
        if (x < 0) {
            x += columns;
            continue;
        }
        if (x + columns > limit) break;
        // Half of a wide character cannot stay on screen: the other half becomes a blank.
        if (at(x, y).glyph.empty() && x > 0) set(x - 1, y, " ", at(x - 1, y).style);
        if (x + columns < width_ && at(x + columns, y).glyph.empty()) set(x + columns, y, " ", style);
        set(x, y, std::move(glyph), style);
        if (columns == 2) set(x + 1, y, "", style);
        lastX = x;
        x += columns;
    }
    return x;
}

void TextCanvas::box(int x, int y, int width, int height, std::string_view title, bool focused) {
    if (width < 2 || height < 2) return;
    const auto style = focused ? CellStyle::focused : CellStyle::dim;
    const int right = x + width - 1;
    const int bottom = y + height - 1;
    for (int column = x + 1; column < right; ++column) {
        put(column, y, "─", style);
        put(column, bottom, "─", style);
    }
    for (int line = y + 1; line < bottom; ++line) {
        put(x, line, "│", style);
        put(right, line, "│", style);
    }
    put(x, y, "┌", style);
    put(right, y, "┐", style);
    put(x, bottom, "└", style);
    put(right, bottom, "┘", style);
    if (!title.empty()) {
        const int end = put(x + 2, y, " ", style, right - 1);
        put(put(end, y, title, focused ? CellStyle::focused : CellStyle::title, right - 2), y, " ", style, right - 1);
    }
}

std::string TextCanvas::row(int y) const {
    std::string line;
    for (int x = 0; x < width_; ++x) line += at(x, y).glyph;
    const auto end = line.find_last_not_of(' ');
    line.erase(end == std::string::npos ? 0 : end + 1);
    return line;
}

std::string TextCanvas::text() const {
    std::vector<std::string> rows;
    for (int y = 0; y < height_; ++y) rows.push_back(row(y));
    while (!rows.empty() && rows.back().empty()) rows.pop_back();
    std::string all;
    for (const auto& r : rows) all += r + "\n";
    return all;
}

}  // namespace gaugepoint::tui
