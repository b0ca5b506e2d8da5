#include "bench/placement/PlanCost.h"

#include <algorithm>
#include <random>
#include <vector>

#include "bench/CpuTime.h"
#include "scheduling/placement/PlacementPlanner.h"
#include "tests/fakes/PlacementMoves.h"

namespace kelm {

namespace {

constexpr int kFirstPlans = 10;

void changeRates(std::vector<double>& rates, std::mt19937& random) {
    for (double& rate : rates) {
        if (random() % 100 < 5) rate = static_cast<double>(random() % 100);
    }
}

}  // namespace

PlanCost measurePlans(size_t devices, size_t graphs, int plans) {
    std::mt19937 random{7};
    PlacementPicture picture;
    for (size_t i = 0; i < devices; ++i) {
        picture.devices.push_back(
            {.id = i + 1, .memory = 512, .slots = 2, .speed = 1.0, .cached = {}});
    }
    for (size_t i = 0; i < graphs; ++i) {
        PlacementGraph& graph = picture.graphs.emplace_back();
        graph.id = i + 1;
        graph.memory = 10;
        graph.taskTime = 0.01;
        graph.loadTime = 0.05;
        graph.requested = true;
    }
    std::vector<double> rates(graphs, 30.0);
    PlacementPlanner planner;
    std::vector<double> costs;
    for (int i = 0; i < plans + kFirstPlans; ++i) {
        picture.now += 1.0;
        changeRates(rates, random);
        for (size_t graph = 0; graph < graphs; ++graph) {
            picture.graphs[graph].arrivals += static_cast<uint64_t>(rates[graph]);
        }
        const double start = threadSeconds();
        const PlacementPlan plan = planner.plan(picture);
        if (i >= kFirstPlans) costs.push_back((threadSeconds() - start) * 1e3);
        applyPlan(picture, plan);
    }
    std::sort(costs.begin(), costs.end());
    return {costs[costs.size() / 2], costs.back()};
}

}  // namespace kelm
