#pragma once

#include <string>

#include "bench/CpuPlacement.h"

namespace kelm::bench {

// What the clients ask of the service, and on how many CPUs.
struct Load {
    int clients = 1;
    int depth = 1;  // tasks of each client in flight
    Cpus cpus = Cpus::kOne;
    // What the two steps of a task take on a simulated device.
    int loadTensorMs = 0;
    int getResultMs = 0;

    bool devicesWait() const { return loadTensorMs + getResultMs > 0; }
    std::string name() const;
};

inline std::string Load::name() const {
    std::string text = std::to_string(clients) + (clients == 1 ? " client" : " clients") +
                       " x depth " + std::to_string(depth) +
                       (cpus == Cpus::kOne ? ", one CPU" : ", all CPUs");
    if (devicesWait()) {
        text += ", devices of " + std::to_string(loadTensorMs) + " + " +
                std::to_string(getResultMs) + " ms";
    }
    return text;
}

}  // namespace kelm::bench
