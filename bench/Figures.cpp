#include "bench/Figures.h"

#include <algorithm>

namespace kelm::bench {

void Rounds::add(const Figures& figures) {
    for (const auto& [key, value] : figures) m_values[key].push_back(value);
}

Figures Rounds::medians() const {
    Figures result;
    for (const auto& [key, values] : m_values) {
        std::vector<double> sorted = values;
        std::ranges::sort(sorted);
        result[key] = sorted[(sorted.size() - 1) / 2];
    }
    return result;
}

}  // namespace kelm::bench
