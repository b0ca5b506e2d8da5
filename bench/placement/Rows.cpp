#include "bench/placement/Rows.h"

#include <string>

namespace kelm {

namespace {

struct Row {
    const char* name;
    size_t devices;
    uint32_t slots;
    std::vector<double> rates;
    std::vector<double> ratesAfterSwap = {};  // half-way
    double taskTime = 0.01;
};

const Row kRows[] = {
    {"4 x 2, 60/2/2/2", 4, 2, {60, 2, 2, 2}},
    {"8 x 2, 70 + 7 x 2", 8, 2, {70, 2, 2, 2, 2, 2, 2, 2}},
    {"3 x 2, 120/60/40/20", 3, 2, {120, 60, 40, 20}},
    {"3 x 2, 160/80/60/30", 3, 2, {160, 80, 60, 30}},
    {"3 x 1, 80/60/40/20/10", 3, 1, {80, 60, 40, 20, 10}},
    {"8 x 1, 260/150/90/80/60/40", 8, 1, {260, 150, 90, 80, 60, 40}},
    {"8 x 2, 450/200/90/60/40/20", 8, 2, {450, 200, 90, 60, 40, 20}},
    {"4 x 1, 260/20 then 20/260", 4, 1, {260, 20}, {20, 260}},
    {"4 x 2, 200/40/20 then 20/40/200", 4, 2, {200, 40, 20}, {20, 40, 200}},
    {"3 x 1, 700 of 5 ms", 3, 1, {700}, {}, 0.005},
};

}  // namespace

std::vector<Scenario> makeRows(double loadTime, uint64_t seed) {
    std::vector<Scenario> scenarios;
    for (const Row& row : kRows) {
        Scenario& scenario = scenarios.emplace_back();
        scenario.name = row.name;
        scenario.speeds.assign(row.devices, 1.0);
        scenario.slots = row.slots;
        scenario.loadTime = loadTime;
        scenario.seed = seed;
        for (size_t i = 0; i < row.rates.size(); ++i) {
            GraphTraffic& graph = scenario.graphs.emplace_back();
            graph.rate = row.rates[i];
            graph.kind = ArrivalKind::Poisson;
            graph.taskTime = row.taskTime;
            if (row.ratesAfterSwap.empty()) continue;
            graph.kind = ArrivalKind::Swap;
            graph.otherRate = row.ratesAfterSwap[i];
            graph.period = scenario.seconds / 2.0;
        }
    }
    return scenarios;
}

}  // namespace kelm
