#include <algorithm>
#include <utility>

#include "execution/KelmDeviceBase.h"
#include "execution/WorkThread.h"
#include "records/KelmGraph.h"
#include "scheduling/devices/DeviceSchedulerSqueeze2.h"
#include "scheduling/devices/LoadGraphOperation.h"
#include "scheduling/devices/UnloadGraphOperation.h"
#include "utils/Log.h"
#include "utils/TextHelper.h"

namespace kelm {

struct DeviceSchedulerSqueeze2::WorkerState {
    WorkThread* worker;
    std::set<KelmGraph*> graphs;           // the target, which the adjustment may exchange
    std::vector<KelmGraph*> cachedGraphs;  // as the device lists them
    std::set<KelmGraph*> initialGraphs;    // the target before the adjustment
};

// Each worker makes room before it loads. A lost worker has no target: it only gives back.
void DeviceSchedulerSqueeze2::makeOperations(const MapResult& result) {
    const std::set<KelmGraph*> nothing;
    for (WorkThread* worker : m_mappedWorkers) {
        const auto found = result.find(worker);
        makeOperations(worker, found != result.end() ? found->second : nothing);
    }
}

void DeviceSchedulerSqueeze2::makeOperations(WorkThread* worker,
                                             const std::set<KelmGraph*>& target) {
    std::set<KelmGraph*> current = worker->getGraphs();
    // A graph that goes for good leaves the cache and the slot: not every device lists its slots'
    // graphs as cached.
    std::vector<KelmGraph*> held = worker->getDevice()->getCachedGraphList();
    held.insert(held.end(), current.begin(), current.end());
    std::set<KelmGraph*> leaving;
    for (KelmGraph* graph : held) {
        if (!m_unloadGraphs.contains(graph) || !leaving.insert(graph).second) continue;
        makeUnload(graph, worker, false);
        current.erase(graph);
    }
    for (KelmGraph* graph : current) {
        if (!target.contains(graph)) makeUnload(graph, worker, true);
    }
    for (KelmGraph* graph : target) {
        if (!current.contains(graph)) makeLoad(graph, worker);
    }
}

void DeviceSchedulerSqueeze2::makeUnload(KelmGraph* graph, WorkThread* worker, bool shallow) {
    m_operations.push_back(UnloadGraphOperation::create(graph, worker, shallow));
    LOG_PROC(m_debugProcess, "NEW UnloadGraphOperation(graph=%s worker=%s, shallow=%s)",
             escapeControls(graph->getName()), worker->getName(), shallow ? "True" : "False");
}

void DeviceSchedulerSqueeze2::makeLoad(KelmGraph* graph, WorkThread* worker) {
    m_operations.push_back(LoadGraphOperation::create(graph, worker));
    LOG_PROC(m_debugProcess, "NEW LoadGraphOperation(graph=%s worker=%s)",
             escapeControls(graph->getName()), worker->getName());
}

void DeviceSchedulerSqueeze2::adjustMapResult(MapResult& result) {
    std::vector<WorkerState> states;
    for (const auto& [worker, graphs] : result) {
        states.push_back({worker, graphs, worker->getDevice()->getCachedGraphList(), graphs});
    }
    const auto isEmpty = [](const WorkerState& state) { return state.graphs.empty(); };
    if (std::all_of(states.begin(), states.end(), isEmpty)) return;
    if (exchangeGraphs(states)) logAdjustment(states);
    for (WorkerState& state : states) result[state.worker] = std::move(state.graphs);
}

// True if a set has changed its worker. A worker whose cache is of no use waits at the end and
// takes what is left.
bool DeviceSchedulerSqueeze2::exchangeGraphs(std::vector<WorkerState>& states) {
    bool changed = false;
    size_t tail = states.size() - 1;
    size_t next = 0;
    while (next < states.size()) {
        KelmGraph* const chosen = chooseScarcest(states, next);
        if (chosen != nullptr) {
            changed |= takeGraphs(states, next, chosen);
            ++next;
            continue;
        }
        if (tail <= next) break;
        std::swap(states[next], states[tail]);
        --tail;
    }
    return changed;
}

// Of the graphs that the first of the open workers has cached and that are to be placed, the one
// that the fewest open workers have cached.
KelmGraph* DeviceSchedulerSqueeze2::chooseScarcest(const std::vector<WorkerState>& states,
                                                   size_t first) {
    std::map<KelmGraph*, size_t> count;
    for (size_t open = first; open < states.size(); ++open) {
        for (KelmGraph* graph : states[open].graphs) count[graph] = 0;
    }
    for (size_t open = first; open < states.size(); ++open) {
        for (KelmGraph* graph : states[open].cachedGraphs) {
            if (const auto entry = count.find(graph); entry != count.end()) ++entry->second;
        }
    }
    auto scarcest = count.end();
    for (KelmGraph* graph : states[first].cachedGraphs) {
        const auto entry = count.find(graph);
        if (entry == count.end()) continue;
        if (scarcest == count.end() || entry->second < scarcest->second) scarcest = entry;
    }
    return scarcest != count.end() ? scarcest->first : nullptr;
}

// Exchanges the sets of the taker and of the first open worker that has the graph.
bool DeviceSchedulerSqueeze2::takeGraphs(std::vector<WorkerState>& states, size_t taker,
                                         KelmGraph* graph) {
    for (size_t holder = taker; holder < states.size(); ++holder) {
        if (!states[holder].graphs.contains(graph)) continue;
        if (holder == taker) return false;
        std::swap(states[taker].graphs, states[holder].graphs);
        return true;
    }
    return false;
}

void DeviceSchedulerSqueeze2::logAdjustment(const std::vector<WorkerState>& states) {
    const auto namesOf = [this](const auto& graphs) REQUIRES(m_onSchedulingThread) {
        std::string names;
        for (KelmGraph* graph : graphs) names += nameOf(graph) + " ";
        return names;
    };
    std::string text;
    for (const WorkerState& state : states) {
        text += "(" + state.worker->getName() + "): [ " + namesOf(state.initialGraphs) + "] -> [ " +
                namesOf(state.graphs) + "] { " + namesOf(state.cachedGraphs) + "}\n";
    }
    LOG_INFO("%s", text + "\n");
}

// A device's cache may list a graph that is not this scheduler's to follow.
std::string DeviceSchedulerSqueeze2::nameOf(KelmGraph* graph) {
    const bool known = m_mappedGraphs.contains(graph) || m_passGoneGraphs.contains(graph);
    return known ? escapeControls(graph->getName()) : "?";
}

}  // namespace kelm
