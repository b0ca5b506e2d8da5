#pragma once

#include <cstdint>
#include <vector>

#include "bench/placement/Scenario.h"

namespace kelm {

// The set-ups that are known by name: random arrivals, tasks of 10 ms but where the name tells.
std::vector<Scenario> makeRows(double loadTime, uint64_t seed, double seconds);

}  // namespace kelm
