#pragma once

#include <string>
#include <vector>

namespace kelm {

// A table of labelled rows with one cell per object, for the snapshots in the log.
class TextTable {
 public:
    enum class Labels {
        InColumn,  // one column of them, on the left
        InCells,   // each cell repeats its label, on the right of the label's width
    };

    // Widths in characters, without the blanks and borders around them.
    TextTable(size_t labelWidth, size_t cellWidth, Labels labels = Labels::InColumn);

    // A cell may hold any text: see escapeControls().
    void row(const std::string& label, const std::vector<std::string>& cells);
    // A line across `cells` columns.
    void rule(size_t cells);
    const std::string& text() const { return m_text; }

 private:
    const size_t m_labelWidth;
    const size_t m_cellWidth;
    const Labels m_labels;
    std::string m_text;
};

}  // namespace kelm
