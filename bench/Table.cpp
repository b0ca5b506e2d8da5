#include "bench/Table.h"

#include <fmt/format.h>

#include <cstdio>

namespace kelm::bench {

Table::Table(std::string title, std::vector<std::string> columns)
    : m_text(fmt::format("\n{:<50}", title)) {
    for (const std::string& column : columns) m_text += fmt::format(" {:>12}", column);
    m_text += "\n";
}

void Table::row(const std::string& label, const std::vector<Cell>& cells) {
    m_text += fmt::format("{:<50}", label);
    for (const Cell& cell : cells) {
        const std::string number =
            cell.value ? fmt::format("{:.{}f}", *cell.value, cell.decimals) : "-";
        m_text += fmt::format(" {:>12}", number);
    }
    m_text += "\n";
}

void Table::print() const {
    std::fputs(m_text.c_str(), stdout);
    std::fflush(stdout);
}

}  // namespace kelm::bench
