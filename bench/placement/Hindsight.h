#pragma once

#include <vector>

#include "bench/placement/Scenario.h"

namespace kelm {

// What the best placement that never changes could have done, knowing all arrivals, in seconds of
// work a second. Loads cost it nothing.
struct Hindsight {
    double throughput = 0.0;
    // Found by trying every placement, or for devices with a slot each; else an upper bound.
    bool isExact = false;
};

// `work` is what really arrives of each graph, in seconds of work for each tenth of a second.
Hindsight findBestFixed(const Scenario& scenario, const std::vector<std::vector<double>>& work);

// An upper bound for any scheduler: all devices as one server with one queue that holds as many
// tasks as may wait.
double commonQueueBound(const Scenario& scenario, const std::vector<std::vector<double>>& work);

}  // namespace kelm
