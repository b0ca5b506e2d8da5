#include "bench/placement/Mixes.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace kelm {

namespace {

class Dice {
 public:
    explicit Dice(uint64_t seed) : m_random(seed * 7919 + 17) {}
    double between(double low, double high) { return low + (high - low) * unit(); }
    size_t number(size_t low, size_t high) {
        return low + static_cast<size_t>(unit() * static_cast<double>(high - low + 1));
    }
    // The same on every library, unlike its distributions.
    double unit() { return static_cast<double>(m_random() >> 11) * 0x1.0p-53; }

 private:
    std::mt19937_64 m_random;
};

// A few large graphs and many small ones, or all much alike.
void drawRates(Scenario& scenario, Dice& dice, size_t graphs, double load) {
    const double skew = dice.between(0.0, 1.5);
    double sum = 0.0;
    std::vector<double> parts;
    for (size_t i = 0; i < graphs; ++i) {
        parts.push_back(dice.between(0.5, 1.0) / std::pow(static_cast<double>(i + 1), skew));
        sum += parts.back();
    }
    double speed = 0.0;
    for (const double each : scenario.speeds) speed += each;
    for (size_t i = 0; i < graphs; ++i) {
        GraphTraffic graph;
        graph.taskTime = dice.between(0.004, 0.03);
        graph.rate = parts[i] / sum * load * speed / graph.taskTime;
        graph.memory = static_cast<uint32_t>(dice.number(5, 120));
        scenario.graphs.push_back(graph);
    }
}

void drawArrivals(GraphTraffic& graph, Dice& dice, double seconds) {
    const double kind = dice.unit();
    graph.phase = dice.unit();
    if (kind < 0.25) {
        graph.kind = ArrivalKind::Constant;
    } else if (kind < 0.7) {
        graph.kind = ArrivalKind::Poisson;
    } else if (kind < 0.8) {
        graph.kind = ArrivalKind::Bursts;
        graph.period = dice.between(4.0, 20.0);
    } else if (kind < 0.9) {
        graph.kind = ArrivalKind::Day;
        graph.period = seconds;
    } else {
        graph.kind = ArrivalKind::Swap;
        graph.period = dice.between(0.3, 0.7) * seconds;
        graph.otherRate = graph.rate * dice.between(0.2, 2.0);
    }
}

}  // namespace

Scenario makeMix(uint64_t number) {
    Dice dice(number);
    Scenario scenario;
    scenario.name = "mix " + std::to_string(number);
    const size_t devices = dice.number(1, dice.unit() < 0.5 ? 4 : 16);
    const bool alike = dice.unit() < 0.8;
    for (size_t i = 0; i < devices; ++i) {
        scenario.speeds.push_back(alike || dice.unit() < 0.7 ? 1.0 : 0.5);
    }
    scenario.slots = static_cast<uint32_t>(dice.number(1, 2));
    const size_t slots = devices * scenario.slots;
    const size_t graphs = dice.number(1, slots + slots / 2 + 1);
    drawRates(scenario, dice, graphs, dice.between(0.1, 1.2));
    for (GraphTraffic& graph : scenario.graphs) drawArrivals(graph, dice, scenario.seconds);
    const double loads[] = {0.0, 0.05, 0.3};
    scenario.loadTime = loads[dice.number(0, 2)];
    scenario.seed = number;
    return scenario;
}

Scenario makeFleet(size_t devices, uint64_t seed) {
    Dice dice(seed + devices);
    Scenario scenario;
    scenario.name = "fleet of " + std::to_string(devices);
    scenario.speeds.assign(devices, 1.0);
    scenario.slots = 2;
    scenario.loadTime = 0.3;
    scenario.waitLimit = 40 * devices;
    scenario.seed = seed;
    scenario.seconds = devices > 1024 ? 20.0 : 30.0;
    drawRates(scenario, dice, devices * 3 / 2, 0.75);
    for (GraphTraffic& graph : scenario.graphs) graph.kind = ArrivalKind::Poisson;
    return scenario;
}

}  // namespace kelm
