#pragma once

#include <string>

namespace kelm::ctl {

struct ResetOptions {
    std::string device;  // a name, or an id
    bool all = false;    // in place of one
    double timeout = 60.0;
};

// Resets a device, or all; tasks in flight there are tried again elsewhere. Exit status 0, or 1
// when the service has not done it.
int runReset(const ResetOptions& options);

}  // namespace kelm::ctl
