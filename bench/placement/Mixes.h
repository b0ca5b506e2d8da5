#pragma once

#include <cstdint>

#include "bench/placement/Scenario.h"

namespace kelm {

// A set-up drawn at random: few or many devices, alike or not, graphs of all sizes, all kinds of
// arrivals, from idle to more than the devices can do. The same for the same number.
Scenario makeMix(uint64_t number);
// Many devices under random steady load.
Scenario makeFleet(size_t devices, uint64_t seed);

}  // namespace kelm
