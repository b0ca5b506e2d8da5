#include "bench/placement/SqueezePlanner.h"

#include <chrono>

#include "records/GraphDemand.h"

namespace kelm {

namespace {

double g_now = 0.0;  // of the simulation; the counters' clock is a plain function

FpsCounter::Clock::time_point virtualNow() {
    return FpsCounter::Clock::time_point(std::chrono::duration_cast<FpsCounter::Clock::duration>(
        std::chrono::duration<double>(g_now + 1000.0)));
}

// As the keys of the configuration have them.
constexpr int kPendingTasks = 20;
constexpr int kPendingCycles = 3;
constexpr int kWindow = 10000;

// Keys in the order of creation.
KelmGraph* graphKey(size_t index) { return reinterpret_cast<KelmGraph*>(0x10000 + index * 64); }
WorkThread* workerKey(size_t index) { return reinterpret_cast<WorkThread*>(0x10000 + index * 64); }
template <class Key>
size_t indexOf(Key* key) {
    return (reinterpret_cast<uintptr_t>(key) - 0x10000) / 64;
}

}  // namespace

SqueezePlanner::Counters::Counters() : in("", "", "", &virtualNow), out("", "", "", &virtualNow) {}

SqueezePlanner::SqueezePlanner(const Scenario& scenario) {
    m_mapper.setMaxGraphNumPerDevice(static_cast<int>(scenario.slots));
    m_mapper.setMaxPendingTaskNum(kPendingTasks);
    m_mapper.setMaxPendingCycle(kPendingCycles);
    for (size_t i = 0; i < scenario.speeds.size(); ++i) {
        (void)m_mapper.addDevice(workerKey(i), scenario.deviceMemory, "worker");
    }
    for (size_t i = 0; i < scenario.graphs.size(); ++i) {
        m_counters.push_back(std::make_unique<Counters>());
        m_counters[i]->in.m_bufferTimeMs = kWindow;
        m_counters[i]->out.m_bufferTimeMs = kWindow;
    }
}

void SqueezePlanner::taskCame(size_t graph) {
    if (m_simulation == nullptr) return;
    g_now = m_simulation->now();
    m_counters[graph]->in.update();
}

void SqueezePlanner::taskTaken(size_t graph) {
    g_now = m_simulation->now();
    m_counters[graph]->out.update();
}

// As KelmGraph::getDevReqNum().
float SqueezePlanner::measure(const Simulation& simulation, size_t graph) {
    GraphLoad load;
    load.avgInferTime = static_cast<float>(simulation.taskTime(graph) * 1e3);
    if (load.avgInferTime <= 0.0f) return 0.5f;
    load.waitTasks = static_cast<uint32_t>(simulation.waiting(graph));
    load.fpsIn = m_counters[graph]->in.getFps();
    load.fpsOut = m_counters[graph]->out.getFps();
    const float request = computeDeviceRequest(load);
    return request * computeDevReqFactor(request, load);
}

// The steps of the scheduler's pass: graphs without a device are new to the mapper each time.
std::vector<PlaceChange> SqueezePlanner::plan(const Simulation& simulation) {
    m_simulation = &simulation;
    g_now = simulation.now();
    const Scenario& scenario = simulation.scenario();
    const size_t devices = scenario.speeds.size();
    for (size_t device = 0; device < devices; ++device) {
        for (const size_t graph : simulation.graphsOn(device)) m_loaded.insert(graph);
    }
    for (size_t i = 0; i < scenario.graphs.size(); ++i) {
        const auto waiting = static_cast<unsigned int>(simulation.waiting(i));
        const unsigned int memory = scenario.graphs[i].memory;
        if (!m_loaded.contains(i)) {
            if (m_known.erase(i) > 0) (void)m_mapper.removeGraph(graphKey(i));
            (void)m_mapper.addGraph(graphKey(i), memory, waiting, "graph");
            continue;
        }
        (void)m_mapper.updateGraph(graphKey(i), measure(simulation, i), memory, waiting);
    }
    for (size_t i = 0; i < scenario.graphs.size(); ++i) m_known.insert(i);
    std::vector<PlaceChange> changes;
    if (!m_mapper.mapGraph()) return changes;
    for (const auto& [worker, target] : m_mapper.getGraphMapperResult()) {
        const size_t device = indexOf(worker);
        for (const size_t graph : simulation.graphsOn(device)) {
            if (!target.contains(graphKey(graph))) changes.push_back({false, graph, device});
        }
        for (KelmGraph* const graph : target) {
            if (!simulation.holds(device, indexOf(graph))) {
                changes.push_back({true, indexOf(graph), device});
            }
        }
    }
    return changes;
}

}  // namespace kelm
