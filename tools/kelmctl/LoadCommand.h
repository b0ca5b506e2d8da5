#pragma once

#include <cstdint>

#include "tools/kelmctl/GraphSession.h"

namespace kelm::ctl {

struct LoadOptions {
    GraphChoice graph;
    bool wait = false;  // until a device holds it
    uint32_t warm = 0;  // inferences on zeros
    bool hold = false;  // until a signal
};

// Has the service load a graph, which it keeps for as long as this command or other clients use it.
// Exit status 0, also when a signal ends the holding; 128 and the number of one that comes earlier.
int runLoad(const LoadOptions& options);

}  // namespace kelm::ctl
