#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kelm::bench {

// A table with a title, a label to the left of each row, and numbers to the right of it.
class Table {
 public:
    Table(std::string title, std::vector<std::string> columns);

    // A number that is absent shows as "-".
    struct Cell {
        std::optional<double> value;
        int decimals = 0;
    };
    void row(const std::string& label, const std::vector<Cell>& cells);
    void print() const;

 private:
    std::string m_text;
};

}  // namespace kelm::bench
