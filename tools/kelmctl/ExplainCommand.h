#pragma once

#include <string>

namespace kelm::ctl {

struct ExplainOptions {
    std::string graph;  // id, name, or the end of its path
    bool json = false;
};

// Prints where a graph is, and why.
int runExplain(const ExplainOptions& options);

}  // namespace kelm::ctl
