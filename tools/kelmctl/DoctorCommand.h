#pragma once

#include <string>
#include <vector>

#include "tools/kelmctl/GraphSession.h"

namespace kelm::ctl {

struct DoctorOptions {
    GraphChoice graph;  // without a file: simulated devices only
    std::vector<std::string> configFiles;
    bool json = false;
};

// Looks at the service and at the machine, and tells of each thing whether it is well and what to
// do if not. Exit status 1 if there is a problem.
int runDoctor(const DoctorOptions& options);

}  // namespace kelm::ctl
