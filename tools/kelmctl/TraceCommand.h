#pragma once

#include <optional>
#include <string>

namespace kelm::ctl {

struct TraceOptions {
    std::string frames;
    std::string tasks;
    std::string output;
    std::string threads;           // a thread.info; empty for none
    std::optional<double> tscMhz;  // measured if not given
    std::string events = {};       // of kelmctl events --json; empty for none
};

// Turns the two files of the service's tracer into one that trace viewers open. Exit status 0, or 1
// when neither file has a usable row.
int runTrace(const TraceOptions& options);

}  // namespace kelm::ctl
