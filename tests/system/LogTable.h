#pragma once

#include <algorithm>
#include <string>
#include <vector>

namespace kelm {

// A table that the service has printed into its log: "| label | cell | cell |", one column per
// thing. A label may come several times.
class LogTable {
 public:
    // The last one under the title that is in the log as a whole; without rows if there is none.
    static LogTable last(const std::string& log, const std::string& title) {
        // Whatever is logged behind a table starts a line with its time.
        const std::string whole = log.substr(0, std::min(log.rfind("\n["), log.size() - 1) + 1);
        LogTable table;
        const size_t at = whole.rfind(title);
        if (at == std::string::npos) return table;
        size_t begin = whole.find('\n', at) + 1;
        while (begin < whole.size() && (whole[begin] == '|' || whole[begin] == '+')) {
            const size_t end = whole.find('\n', begin);
            if (whole[begin] == '|') table.m_rows.push_back(split(whole, begin + 1, end));
            begin = end + 1;
        }
        return table;
    }

    bool empty() const { return m_rows.empty(); }
    size_t columns() const { return empty() ? 0 : m_rows.front().size() - 1; }

    // What stands in the column, in the row with the label, of several the one with the index;
    // "?" if there is none.
    std::string cell(const std::string& label, size_t column, size_t index = 0) const {
        for (const std::vector<std::string>& row : m_rows) {
            if (row.front() != label || index-- > 0) continue;
            return column + 1 < row.size() ? row[column + 1] : "?";
        }
        return "?";
    }

 private:
    // The texts between the bars, without the blanks around them.
    static std::vector<std::string> split(const std::string& text, size_t begin, size_t lineEnd) {
        std::vector<std::string> cells;
        for (size_t end = 0; (end = text.find('|', begin)) < lineEnd; begin = end + 1) {
            const size_t first = text.find_first_not_of(' ', begin);
            const size_t last = text.find_last_not_of(' ', end - 1);
            cells.push_back(first < end ? text.substr(first, last + 1 - first) : "");
        }
        return cells;
    }

    std::vector<std::vector<std::string>> m_rows;
};

}  // namespace kelm
