#include "utils/TextTable.h"

#include "utils/TextHelper.h"

namespace kelm {

TextTable::TextTable(size_t labelWidth, size_t cellWidth)
    : m_labelWidth(labelWidth), m_cellWidth(cellWidth) {}

void TextTable::row(const std::string& label, const std::vector<std::string>& cells) {
    m_text += "| " + alignLeft(label, m_labelWidth) + " |";
    for (const std::string& cell : cells) m_text += " " + alignLeft(cell, m_cellWidth) + " |";
    m_text += "\n";
}

void TextTable::rule(size_t cells) {
    constexpr size_t kBlanks = 2;
    m_text += "+" + std::string(m_labelWidth + kBlanks, '-') + "+";
    for (size_t i = 0; i < cells; ++i) m_text += std::string(m_cellWidth + kBlanks, '-') + "+";
    m_text += "\n";
}

}  // namespace kelm
