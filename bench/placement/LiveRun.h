#pragma once

#include "bench/placement/Comparison.h"

namespace kelm {

// The scenario in real time: the service as a process on simulated devices, a client for each
// graph, tasks sent at their moments whether earlier ones have ended or not. A simulated device
// runs its slots beside each other, each at the full speed.
//
// Throws std::runtime_error if the service or a client fails. Threads: runs may go side by side.
Outcome runLive(const Scenario& scenario, Contender contender);
// The best for such devices.
Hindsight findBestLive(Scenario scenario, const Outcome& outcome);

}  // namespace kelm
