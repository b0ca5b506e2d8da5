#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kelm::ctl {

enum class TopStyle { kPlain, kTitle, kHeading, kSelected, kDim, kWarning, kAlarm, kGood };

// A picture of characters, each with a style. What does not fit is cut.
class TopGrid {
 public:
    // A piece of a line in one style, as it is written to a terminal.
    struct Run {
        size_t x;
        std::string text;  // UTF-8
        TopStyle style;
    };

    TopGrid(size_t width, size_t height);

    // Puts a safe text there; returns the column behind it.
    size_t put(size_t x, size_t y, std::u32string_view text, TopStyle style);
    // The style of a whole line.
    void fill(size_t y, TopStyle style);

    size_t width() const { return m_width; }
    size_t height() const { return m_height; }
    std::vector<Run> runs(size_t y) const;
    std::string line(size_t y) const;

 private:
    struct Cell {
        char32_t character = U' ';  // 0: the second half of a wide one before it
        TopStyle style = TopStyle::kPlain;
    };

    Cell& cell(size_t x, size_t y) { return m_cells[y * m_width + x]; }
    const Cell& cell(size_t x, size_t y) const { return m_cells[y * m_width + x]; }

    const size_t m_width;
    const size_t m_height;
    std::vector<Cell> m_cells;
};

}  // namespace kelm::ctl
