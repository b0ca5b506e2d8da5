#pragma once

#include <chrono>
#include <vector>

#include "execution/TevoApi.h"

namespace kelm {

// The library's handles of a graph on a device; null for what does not exist.
struct TevoHandles {
    qxGraphHandle_t* graphHandle = nullptr;
    qxFifoHandle_t* fifoIn = nullptr;   // host writes, device reads
    qxFifoHandle_t* fifoOut = nullptr;  // device writes, host reads
};

// One graph on a device. An inactive one takes up device memory and costs nothing to start again.
struct TevoGraphInfo {
    TevoHandles handles;
    bool active = true;  // a slave worker runs the graph now
    std::chrono::steady_clock::time_point lastActivateTime;
    // Tasks whose input is in the device's queue without an inference of its own, oldest first.
    std::vector<unsigned long> orphans;
};

}  // namespace kelm
