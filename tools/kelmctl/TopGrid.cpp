#include "tools/kelmctl/TopGrid.h"

#include "tools/kelmctl/SafeText.h"

namespace kelm::ctl {

TopGrid::TopGrid(size_t width, size_t height)
    : m_width(width), m_height(height), m_cells(width * height) {}

// A wide character that would be cut in half at the edge is left out.
size_t TopGrid::put(size_t x, size_t y, std::u32string_view text, TopStyle style) {
    if (y >= m_height) return x;
    for (const char32_t character : text) {
        const size_t columns = columnsOf(character);
        if (x + columns > m_width) break;
        cell(x, y) = {character, style};
        if (columns == 2) cell(x + 1, y) = {U'\0', style};
        x += columns;
    }
    return x;
}

void TopGrid::fill(size_t y, TopStyle style) {
    for (size_t x = 0; y < m_height && x < m_width; ++x) cell(x, y).style = style;
}

// A run ends where the style changes: one call to the terminal for each.
std::vector<TopGrid::Run> TopGrid::runs(size_t y) const {
    std::vector<Run> result;
    for (size_t x = 0; x < m_width; ++x) {
        const Cell& here = cell(x, y);
        if (result.empty() || result.back().style != here.style) {
            result.push_back({x, "", here.style});
        }
        if (here.character != U'\0') {
            result.back().text += toUtf8(std::u32string_view(&here.character, 1));
        }
    }
    return result;
}

std::string TopGrid::line(size_t y) const {
    std::string text;
    for (const Run& run : runs(y)) text += run.text;
    return text;
}

}  // namespace kelm::ctl
