#pragma once

#include <string>

#include "tools/kelmctl/GraphSession.h"

namespace kelm::ctl {

struct InferOptions {
    GraphChoice graph;
    std::string input;
    std::string output;
    bool pad = false;  // a shorter input with zeros
};

// Runs one graph on one input file and writes the output, as a whole or not at all. Exit status 0
// on success, or 128 and the number of a signal that interrupted it.
int runInfer(const InferOptions& options);

}  // namespace kelm::ctl
