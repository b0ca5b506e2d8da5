#pragma once

#include <chrono>
#include <memory>

#include "execution/QueueLedger.h"
#include "execution/TevoApi.h"

namespace kelm {

// The library's handles of a graph on a device; null for what does not exist.
struct TevoHandles {
    qxGraphHandle_t* graphHandle = nullptr;
    qxFifoHandle_t* fifoIn = nullptr;   // host writes, device reads
    qxFifoHandle_t* fifoOut = nullptr;  // device writes, host reads
    unsigned int resultSize = 0;        // of an element of fifoOut, bytes
};

// What a task needs to run on a graph. Without handles when the graph's renewal has failed.
struct TevoQueues {
    TevoHandles handles;
    std::shared_ptr<QueueLedger> ledger;

    bool isUsable() const { return handles.graphHandle != nullptr; }
};

// One graph on a device. An inactive one takes up device memory and costs nothing to start again.
struct TevoGraphInfo {
    TevoQueues queues;
    bool active = true;  // a slave worker runs the graph now
    std::chrono::steady_clock::time_point lastActivateTime;
};

}  // namespace kelm
