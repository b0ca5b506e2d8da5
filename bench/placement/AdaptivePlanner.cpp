#include "bench/placement/AdaptivePlanner.h"

namespace kelm {

std::vector<PlaceChange> AdaptivePlanner::plan(const Simulation& simulation) {
    const Scenario& scenario = simulation.scenario();
    m_picture.now = simulation.now();
    m_picture.graphs.assign(scenario.graphs.size(), {});
    m_picture.devices.clear();
    for (size_t i = 0; i < scenario.graphs.size(); ++i) {
        PlacementGraph& graph = m_picture.graphs[i];
        graph.id = i + 1;
        graph.memory = scenario.graphs[i].memory;
        graph.arrivals = simulation.arrived(i);
        graph.waiting = static_cast<uint32_t>(simulation.waiting(i));
        graph.oldestAge = simulation.oldestAge(i);
        graph.taskTime = simulation.taskTime(i);
        graph.loadTime = simulation.measuredLoad(i);
        graph.requested = graph.loadTime <= 0.0;
        if (graph.requested) graph.oldestAge = m_picture.now;
    }
    for (size_t i = 0; i < scenario.speeds.size(); ++i) {
        m_picture.devices.push_back({.id = i + 1,
                                     .memory = scenario.deviceMemory,
                                     .slots = scenario.slots,
                                     .speed = scenario.speeds[i],
                                     .cached = {}});
        for (const size_t graph : simulation.graphsOn(i)) {
            m_picture.graphs[graph].places.push_back({i + 1, simulation.since(i, graph)});
        }
    }
    const PlacementPlan plan = m_planner.plan(m_picture);
    m_interval = plan.wakeAfter;
    std::vector<PlaceChange> changes;
    for (const PlacementMove& move : plan.moves) {
        if (move.from != 0) changes.push_back({false, move.graph - 1, move.from - 1});
        if (move.device != 0) changes.push_back({true, move.graph - 1, move.device - 1});
    }
    return changes;
}

}  // namespace kelm
