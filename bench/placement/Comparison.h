#pragma once

#include <array>
#include <cstddef>
#include <vector>

#include "bench/placement/Hindsight.h"
#include "bench/placement/Simulation.h"

namespace kelm {

// The planners side by side; the last has the task scheduler that is fair, the others the usual
// one.
enum Contender : size_t { SQUEEZE, ADAPTIVE, ADAPTIVE_FAIR, CONTENDERS };
constexpr std::array<const char*, CONTENDERS> kContenderNames{"squeeze2", "adaptive",
                                                              "adaptive, fair tasks"};

// What is told of one run.
struct Figures {
    double throughput = 0.0;  // seconds of work a second
    double ratio = 0.0;       // of that to the best in hindsight
    double busy = 0.0;        // of the devices, mean
    double refused = 0.0;
    double loads = 0.0;
    double lateLoads = 0.0;
    double smallP90 = 0.0;  // milliseconds, of the graphs of least rate together
    double smallP99 = 0.0;
    double worstP99 = 0.0;    // of the graph that has the worst
    double settled = 0.0;     // seconds from a swap to nine tenths of what comes; 0 without one
    double planMillis = 0.0;  // of processor time, the slowest plan
};

Outcome simulate(Scenario scenario, Contender contender);
// The lower of the two bounds; the same for all contenders, as the arrivals are.
Hindsight findBest(const Scenario& scenario, const Outcome& outcome);
Figures sumUp(const Scenario& scenario, const Outcome& outcome, const Hindsight& best);
// Of each figure by itself.
Figures takeMedians(std::vector<Figures> runs);

}  // namespace kelm
