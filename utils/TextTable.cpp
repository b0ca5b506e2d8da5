#include "utils/TextTable.h"

#include "utils/TextHelper.h"

namespace kelm {

TextTable::TextTable(size_t labelWidth, size_t cellWidth, Labels labels)
    : m_labelWidth(labelWidth), m_cellWidth(cellWidth), m_labels(labels) {}

void TextTable::row(const std::string& label, const std::vector<std::string>& cells) {
    if (m_labels == Labels::InColumn) {
        m_text.append("| ").append(alignLeft(label, m_labelWidth)).append(" |");
        for (const std::string& cell : cells) {
            m_text.append(" ").append(alignLeft(escapeControls(cell), m_cellWidth)).append(" |");
        }
    } else {
        m_text += "|";
        for (const std::string& cell : cells) {
            m_text += alignRight(label, m_labelWidth) +
                      alignLeft(escapeControls(cell), m_cellWidth) + "|";
        }
    }
    m_text += "\n";
}

// Each cell of a column has a blank on either side, those with labels have none.
void TextTable::rule(size_t cells) {
    constexpr size_t kBlanks = 2;
    const bool inColumn = m_labels == Labels::InColumn;
    const size_t cellWidth = m_cellWidth + (inColumn ? kBlanks : m_labelWidth);
    m_text += "+";
    if (inColumn) m_text += std::string(m_labelWidth + kBlanks, '-') + "+";
    for (size_t i = 0; i < cells; ++i) m_text += std::string(cellWidth, '-') + "+";
    m_text += "\n";
}

}  // namespace kelm
