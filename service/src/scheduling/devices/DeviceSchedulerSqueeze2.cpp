#include "scheduling/devices/DeviceSchedulerSqueeze2.h"

#include <algorithm>
#include <map>
#include <utility>

#include "execution/KelmDeviceBase.h"
#include "execution/WorkThread.h"
#include "records/KelmGraph.h"
#include "utils/Log.h"
#include "utils/TextHelper.h"

namespace kelm {

namespace {

using WorkerStates = std::vector<DeviceSchedulerSqueeze2::WorkerState>;

// Of the graphs that the first of the open workers has cached and that are to be placed, the one
// that the fewest open workers have cached. It has the fewest chances to land where it is cached,
// so it is served first.
KelmGraph* chooseScarcest(const WorkerStates& states, size_t first) {
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
bool takeGraphs(WorkerStates& states, size_t taker, KelmGraph* graph) {
    for (size_t holder = taker; holder < states.size(); ++holder) {
        if (!states[holder].graphs.contains(graph)) continue;
        if (holder == taker) return false;
        std::swap(states[taker].graphs, states[holder].graphs);
        return true;
    }
    return false;
}

}  // namespace

DeviceSchedulerSqueeze2::DeviceSchedulerSqueeze2(const char* name,
                                                 std::chrono::nanoseconds interval)
    : DeviceSchedulerActive(name, interval) {
    // A graph whose load failed is new to the next plan, which may give it another device.
    m_retryLoadGraph = true;
}

// Here and not in the base: the thread uses the mapper, which is destroyed next.
DeviceSchedulerSqueeze2::~DeviceSchedulerSqueeze2() { join(); }

void DeviceSchedulerSqueeze2::setMaxGraphNumPerDevice(int number) {
    m_graphMapper.setMaxGraphNumPerDevice(number);
}

void DeviceSchedulerSqueeze2::setMaxPendingTaskNum(int number) {
    m_graphMapper.setMaxPendingTaskNum(number);
}

void DeviceSchedulerSqueeze2::setMaxPendingCycle(int number) {
    m_graphMapper.setMaxPendingCycle(number);
}

void DeviceSchedulerSqueeze2::handleLoadGraphFail(KelmGraph* graph) {
    m_mappedGraphs.erase(graph);
    (void)m_graphMapper.removeGraph(graph);  // false: the mapper had refused it
}

// A dead device refuses every load at once and would look like the freest of all.
void DeviceSchedulerSqueeze2::handleLostWorker(WorkThread* worker) {
    if (!m_mappedWorkers.contains(worker) || !m_lostWorkers.insert(worker).second) return;
    LOG_WARN("Warn: the device of worker(%s) is lost, its graphs move", worker->getName());
    (void)m_graphMapper.removeDevice(worker);
}

// Devices before graphs: the mapper measures a new graph against the memory of the first device.
// New workers before leaving ones: a worker that came and left within one pass gets its plug-out.
bool DeviceSchedulerSqueeze2::mapResource() {
    forgetPass();
    takeNewWorkers();
    dropLeavingWorkers();
    dropFailedWorkers();
    takeNewGraphs();
    dropLeavingGraphs();
    updateDemand();
    // After the update: a graph that comes in this pass has not worked yet. It keeps the demand of
    // a new one, and is switched out last.
    m_mappedGraphs.insert(m_loadGraphs.begin(), m_loadGraphs.end());
    if (!m_graphMapper.mapGraph()) {
        LOG_ERROR("Error: mapGraph failed");
        return false;
    }
    m_graphMapper.printAll();
    tellPendingStates();
    MapResult result = m_graphMapper.getGraphMapperResult();
    adjustMapResult(result);
    makeOperations(result);
    return true;
}

// Undoes this pass in the mapper only: no operation has been executed. The sets of the pass stay,
// and the next one plans for them again.
void DeviceSchedulerSqueeze2::restoreScene() {
    m_operations.clear();
    for (WorkThread* worker : m_addWorkers) {  // stays known, with a fresh item and without a map
        if (!m_mappedWorkers.contains(worker) || m_lostWorkers.contains(worker)) continue;
        (void)m_graphMapper.removeDevice(worker);
        addDevice(worker);
    }
    for (WorkThread* worker : m_passGoneWorkers) {
        m_mappedWorkers.insert(worker);
        if (!m_lostWorkers.contains(worker)) addDevice(worker);
    }
    for (KelmGraph* graph : m_passNewGraphs) {
        m_mappedGraphs.erase(graph);
        (void)m_graphMapper.removeGraph(graph);
    }
    for (KelmGraph* graph : m_passGoneGraphs) {
        m_mappedGraphs.insert(graph);
        (void)m_graphMapper.addGraph(graph, graph->getMemReq(), graph->getNumWaitTasks(),
                                     graph->getName());
    }
    forgetPass();
}

void DeviceSchedulerSqueeze2::forgetPass() {
    m_passNewGraphs.clear();
    m_passGoneGraphs.clear();
    m_passGoneWorkers.clear();
}

// The size in MB, as the mapper counts it. Its answer is false only for a null worker.
void DeviceSchedulerSqueeze2::addDevice(WorkThread* worker) {
    (void)m_graphMapper.addDevice(worker, worker->getDevice()->getMemorySize(), worker->getName());
}

void DeviceSchedulerSqueeze2::takeNewWorkers() {
    // A lost worker that a commit has plugged out is destroyed; a new one may live at its address.
    std::erase_if(m_lostWorkers, [this](WorkThread* worker) REQUIRES(m_onSchedulingThread) {
        return !m_mappedWorkers.contains(worker);
    });
    for (WorkThread* worker : m_addWorkers) {
        if (m_mappedWorkers.insert(worker).second) addDevice(worker);
    }
}

void DeviceSchedulerSqueeze2::dropLeavingWorkers() {
    // A lost worker has left the mapper already, but is still held: it needs its plug-out like the
    // others.
    for (WorkThread* worker : m_removeWorkers) {
        if (m_mappedWorkers.erase(worker) == 0) continue;
        makePlugout(worker);
        m_passGoneWorkers.insert(worker);
        if (!m_lostWorkers.contains(worker)) (void)m_graphMapper.removeDevice(worker);
    }
}

// A device that failed with tasks in flight makes no operation fail, and its reset need not take it
// off the bus.
void DeviceSchedulerSqueeze2::dropFailedWorkers() {
    for (WorkThread* worker : m_mappedWorkers) {
        if (worker->getDevice()->isFailed()) handleLostWorker(worker);
    }
}

// A graph whose load failed stays among the graphs to load, but leaves the mapper: it is new again.
void DeviceSchedulerSqueeze2::takeNewGraphs() {
    for (KelmGraph* graph : m_loadGraphs) {
        if (m_mappedGraphs.contains(graph)) continue;
        m_passNewGraphs.insert(graph);
        // A graph that is refused gets no device, and its load fails for that.
        (void)m_graphMapper.addGraph(graph, graph->getMemReq(), graph->getNumWaitTasks(),
                                     graph->getName());
    }
}

// A graph that the mapper never took has no item to remove; its unload is answered all the same.
void DeviceSchedulerSqueeze2::dropLeavingGraphs() {
    for (KelmGraph* graph : m_unloadGraphs) {
        if (m_mappedGraphs.erase(graph) == 0) continue;
        m_passGoneGraphs.insert(graph);
        (void)m_graphMapper.removeGraph(graph);
    }
}

// The measures are taken while tasks run, so the graphs of one pass are read at slightly different
// moments. The mapper smooths them and ignores small moves.
void DeviceSchedulerSqueeze2::updateDemand() {
    for (KelmGraph* graph : m_mappedGraphs) {
        const float asked = graph->getDevReqNum();
        (void)m_graphMapper.updateGraph(graph, asked, graph->getMemReq(), graph->getNumWaitTasks());
        m_notes.ask(graph, asked);
    }
}

// Deliberate: a pass without a new mapping tells every graph that it is not pending, also those
// that are still switched out, since their demand was measured anew in this pass.
void DeviceSchedulerSqueeze2::tellPendingStates() {
    for (const auto& [graph, pending] : m_graphMapper.getGraphPendingState()) {
        graph->setPendingState(pending);
        if (!pending || m_notes.isRefused(graph)) continue;
        m_notes.refuse(graph, PlacementReason::Demand, findLack(graph));
    }
}

PlacementReason DeviceSchedulerSqueeze2::findLoadReason(KelmGraph* graph, WorkThread* worker) {
    const PlacementReason reason = DeviceSchedulerActive::findLoadReason(graph, worker);
    if (reason == PlacementReason::Starving) return reason;
    const std::vector<KelmGraph*> cached = worker->getDevice()->getCachedGraphList();
    const bool isCached = std::find(cached.begin(), cached.end(), graph) != cached.end();
    return isCached ? PlacementReason::Cache : reason;
}

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
    // A graph that will be destroyed leaves the cache and the slot: not every device lists its
    // slots' graphs as cached.
    std::vector<KelmGraph*> held = worker->getDevice()->getCachedGraphList();
    held.insert(held.end(), current.begin(), current.end());
    std::set<KelmGraph*> leaving;
    for (KelmGraph* graph : held) {
        if (!m_unloadGraphs.contains(graph) || !leaving.insert(graph).second) continue;
        makeUnload(graph, worker, false, ", shallow=False");
        current.erase(graph);
    }
    for (KelmGraph* graph : current) {
        if (!target.contains(graph)) makeUnload(graph, worker, true, ", shallow=True");
    }
    for (KelmGraph* graph : target) {
        if (!current.contains(graph)) makeLoad(graph, worker);
    }
}

// Only the operations see the exchanged targets, not the mapper: it goes on from its own map, and a
// later pass exchanges anew by what is cached then.
void DeviceSchedulerSqueeze2::adjustMapResult(MapResult& result) {
    std::vector<WorkerState> states;
    for (const auto& [worker, graphs] : result) {
        states.push_back({worker, graphs, worker->getDevice()->getCachedGraphList(), graphs});
    }
    const auto isEmpty = [](const WorkerState& state) { return state.graphs.empty(); };
    if (std::all_of(states.begin(), states.end(), isEmpty)) return;  // also without any worker
    if (exchangeGraphs(states)) logAdjustment(states);
    for (WorkerState& state : states) result[state.worker] = std::move(state.graphs);
}

// A worker whose cache is of no use waits at the end and takes what is left. Before `next` stand
// the workers that have their graphs, behind `tail` those whose cache was of no use.
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

// For each worker its target before and after, and in braces what is cached there.
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
