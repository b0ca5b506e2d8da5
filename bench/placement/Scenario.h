#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kelm {

// How the tasks of one graph arrive.
enum class ArrivalKind { Constant, Poisson, Bursts, Day, Swap };

struct GraphTraffic {
    double rate = 0.0;  // tasks a second; the mean but for swaps, where it is the rate before
    ArrivalKind kind = ArrivalKind::Constant;
    double otherRate = 0.0;  // after a swap
    double period = 60.0;    // seconds: of bursts and of the day; the time of the swap
    double phase = 0.0;      // part of the period
    double taskTime = 0.01;  // seconds on a device of speed 1
    uint32_t memory = 10;    // MB
};

// One run of the simulation; times in seconds of virtual time.
struct Scenario {
    std::string name;
    std::vector<double> speeds;  // one for each device
    uint32_t slots = 1;
    uint32_t deviceMemory = 512;
    std::vector<GraphTraffic> graphs;
    double loadTime = 0.0;   // of a graph onto a slot
    size_t inFlight = 2;     // tasks of a worker
    size_t waitLimit = 300;  // tasks that wait; more are refused
    // The worker whose device holds least gets the next task, not the first that waits; and no
    // graph is refused a task while fewer wait of it than its equal share of the limit.
    bool fairTasks = false;
    double warmUp = 1.0;    // before the first task
    double seconds = 60.0;  // of load
    uint64_t seed = 1;
};

// The rate at a moment of the load, from 0 to `seconds`.
double rateAt(const GraphTraffic& traffic, double time);
// The highest of these.
double peakRate(const GraphTraffic& traffic);

}  // namespace kelm
