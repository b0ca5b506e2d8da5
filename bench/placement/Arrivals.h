#pragma once

#include <random>

#include "bench/placement/Scenario.h"

namespace kelm {

// The moments at which the tasks of one graph arrive.
class Arrivals {
 public:
    Arrivals(const GraphTraffic& traffic, uint64_t seed);
    // The first moment after the one before, in seconds of load; infinite if there is none.
    double next();

 private:
    double nextSpaced();
    double nextRandom();

    const GraphTraffic m_traffic;
    std::mt19937_64 m_random;
    double m_time = 0.0;
};

}  // namespace kelm
