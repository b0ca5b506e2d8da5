#pragma once

#include <string>

namespace kelm::ctl {

struct InferOptions {
    std::string graph;
    std::string input;
    std::string output;
    bool graphByPath = false;  // the service opens the graph's file itself
    std::string tag;
    std::string streamId;
    int subclass = 0;
    double timeout = 30.0;  // seconds for each step
};

// Runs one graph on one input file and writes the output. Exit status 0 on success, or 128 and the
// number of a signal that interrupted it.
int runInfer(const InferOptions& options);

}  // namespace kelm::ctl
