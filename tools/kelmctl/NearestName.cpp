#include "tools/kelmctl/NearestName.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace kelm::ctl {

namespace {

// Row by row over the beginnings of `from`; a cell tells the steps to that beginning of `to`.
size_t countSteps(const std::string& from, const std::string& to) {
    std::vector<size_t> previous;
    std::vector<size_t> current(to.size() + 1);
    for (size_t j = 0; j <= to.size(); ++j) current[j] = j;
    for (size_t i = 1; i <= from.size(); ++i) {
        const std::vector<size_t> beforePrevious = std::exchange(previous, current);
        current[0] = i;
        for (size_t j = 1; j <= to.size(); ++j) {
            const size_t replaced = previous[j - 1] + (from[i - 1] == to[j - 1] ? 0 : 1);
            current[j] = std::min({replaced, previous[j] + 1, current[j - 1] + 1});
            const bool exchanged =
                i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1];
            if (exchanged) current[j] = std::min(current[j], beforePrevious[j - 2] + 1);
        }
    }
    return current[to.size()];
}

}  // namespace

const std::string& findNearest(const std::string& word, const std::vector<std::string>& names) {
    return *std::min_element(names.begin(), names.end(),
                             [&](const std::string& left, const std::string& right) {
                                 return countSteps(word, left) < countSteps(word, right);
                             });
}

}  // namespace kelm::ctl
