#pragma once

#include <cstdint>
#include <string>

namespace kelm::ctl {

struct WaitReadyOptions {
    double timeout = 10.0;  // seconds
    uint32_t devices = 0;   // that are to be there; 0: only the service
    std::string graph;      // that a device is to hold, by its name or the end of its path
};

// Waits until the service takes clients, which is when its ready lock is held, and has what is
// asked for. Exit status 0, or 1 when the time is up first, with what is missing.
int runWaitReady(const WaitReadyOptions& options);

}  // namespace kelm::ctl
