#pragma once

#include <string>
#include <vector>

namespace kelm::ctl {

// The name that takes the fewest letters added, dropped, replaced or exchanged with their neighbour
// to come to from `word`; the first of several. `names` has at least one.
const std::string& findNearest(const std::string& word, const std::vector<std::string>& names);

}  // namespace kelm::ctl
