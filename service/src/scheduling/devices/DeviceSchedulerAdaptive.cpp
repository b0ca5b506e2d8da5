#include "scheduling/devices/DeviceSchedulerAdaptive.h"

#include <algorithm>
#include <utility>

#include "execution/KelmDeviceBase.h"
#include "execution/WorkThread.h"
#include "records/KelmGraph.h"
#include "utils/Log.h"
#include "utils/TextHelper.h"

namespace kelm {

namespace {

// Between two plans that only a starving graph asks for.
constexpr std::chrono::milliseconds kLeastInterval{100};
// Below this busy share a device's results say little about its speed.
constexpr double kBusyEnough = 0.5;
constexpr double kLookBack = 5.0;    // seconds
constexpr double kFreshSpeed = 0.2;  // the weight of a new measure
constexpr double kSlowest = 0.1;
constexpr double kFastest = 4.0;
constexpr double kFreshLoad = 0.5;

void smooth(double& value, double measure, double weight) {
    value = value > 0.0 ? value + weight * (measure - value) : measure;
}

}  // namespace

DeviceSchedulerAdaptive::DeviceSchedulerAdaptive(const char* name) : DeviceSchedulerActive(name) {
    // A graph whose load failed is new to the next plan, which may give it another device.
    m_retryLoadGraph = true;
}

DeviceSchedulerAdaptive::~DeviceSchedulerAdaptive() { join(); }

void DeviceSchedulerAdaptive::setMaxGraphNumPerDevice(int number) {
    if (number > 0) m_slots = static_cast<uint32_t>(number);
}

void DeviceSchedulerAdaptive::notifyStarving() {
    MutexLock lock(m_requestMutex);
    m_starving = true;
    m_requestCond.notifyOne();
}

// Requests and failures are served at once, a starving graph a little later, so that the tasks of
// many do not each bring a plan.
bool DeviceSchedulerAdaptive::waitChangeRequestUntilTimeout() {
    const std::chrono::duration<double> wakeAfter(m_plan.wakeAfter);
    const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(wakeAfter);
    const auto earliest = m_lastPass + kLeastInterval;
    MutexLock lock(m_requestMutex);
    while (!hasReasonToWakeUnsafe()) {
        const auto until = m_starving ? std::min(deadline, earliest) : deadline;
        if (Clock::now() >= until) break;
        (void)m_requestCond.waitUntil(m_requestMutex, until);
    }
    m_starving = false;
    return !m_stop;
}

// By id: the record goes with the notice that follows, or is new to the next plan.
void DeviceSchedulerAdaptive::handleLoadGraphFail(KelmGraph* graph) {
    m_graphs.erase(graph->getId());
}

// A dead device refuses every load at once and would look like the freest of all.
void DeviceSchedulerAdaptive::handleLostWorker(WorkThread* worker) {
    const auto found = m_known.find(findWorker(worker));
    if (found == m_known.end() || found->second.lost) return;
    found->second.lost = true;
    LOG_WARN("Warn: the device of worker(%s) is lost, its graphs move", worker->getName());
}

bool DeviceSchedulerAdaptive::mapResource() {
    m_lastPass = Clock::now();
    m_now = std::chrono::duration<double>(m_lastPass.time_since_epoch()).count();
    settle();
    takeNewGraphs();
    takeNewWorkers();
    dropFailedWorkers();
    drawPicture();
    m_plan = m_planner.plan(m_picture);
    makeOperations();
    tellPendingStates();
    return true;
}

// The plan never happened: what it took out stays known, and the next one sees what is there.
void DeviceSchedulerAdaptive::restoreScene() {
    m_operations.clear();
    m_leavingGraphs.clear();
    m_leavingWorkers.clear();
    m_loads.clear();
}

void DeviceSchedulerAdaptive::settle() {
    for (const uint64_t worker : std::exchange(m_leavingWorkers, {})) m_known.erase(worker);
    for (const uint64_t graph : std::exchange(m_leavingGraphs, {})) {
        m_graphs.erase(graph);
        m_refusals.erase(graph);
    }
    noteLoads();
}

// A graph that several devices have loaded at once keeps the time of the last; they are alike.
void DeviceSchedulerAdaptive::noteLoads() {
    for (const Load& load : std::exchange(m_loads, {})) {
        const auto worker = m_known.find(load.worker);
        if (worker == m_known.end()) continue;
        if (!worker->second.worker->getGraphs().contains(load.key)) {
            m_refusals[load.graph].insert(load.worker);
            continue;
        }
        m_refusals.erase(load.graph);
        const auto graph = m_graphs.find(load.graph);
        if (graph == m_graphs.end()) continue;
        KnownGraph& known = graph->second;
        const double time = known.graph->getLoadTime();
        if (time <= 0.0) continue;
        smooth(load.cached ? known.cachedTime : known.loadTime, time, kFreshLoad);
        worker->second.since[load.graph] = m_now;
    }
}

void DeviceSchedulerAdaptive::takeNewGraphs() {
    for (KelmGraph* graph : m_loadGraphs) {
        const auto [entry, isNew] = m_graphs.try_emplace(graph->getId());
        if (isNew) entry->second = {.graph = graph, .waitsSince = m_now};
    }
    // Known from before its unload was asked for: the record stays until the notice.
    for (auto& [id, known] : m_graphs) {
        if (m_unloadGraphs.contains(known.graph)) m_leavingGraphs.insert(id);
    }
}

void DeviceSchedulerAdaptive::takeNewWorkers() {
    std::vector<WorkThread*> added;
    for (WorkThread* worker : m_addWorkers) {
        if (findWorker(worker) == 0) added.push_back(worker);
    }
    std::sort(added.begin(), added.end(), [](const WorkThread* left, const WorkThread* right) {
        return left->getName() < right->getName();
    });
    for (WorkThread* worker : added) m_known[++m_lastWorker].worker = worker;
    // After those that come: a worker that came and left in one pass gets its plug-out.
    for (WorkThread* worker : m_removeWorkers) {
        const uint64_t id = findWorker(worker);
        if (id == 0 || !m_leavingWorkers.insert(id).second) continue;
        makePlugout(worker);
    }
}

uint64_t DeviceSchedulerAdaptive::findWorker(WorkThread* worker) const {
    for (const auto& [id, known] : m_known) {
        if (known.worker == worker) return id;
    }
    return 0;
}

void DeviceSchedulerAdaptive::dropFailedWorkers() {
    for (auto& [id, known] : m_known) {
        if (known.worker->getDevice()->isFailed()) handleLostWorker(known.worker);
    }
}

void DeviceSchedulerAdaptive::drawPicture() {
    m_picture.now = m_now;
    m_picture.graphs.clear();
    m_picture.devices.clear();
    m_drawn.clear();
    for (auto& [id, known] : m_graphs) {
        if (!m_leavingGraphs.contains(id)) drawGraph(id, known);
    }
    for (auto& [id, known] : m_known) drawDevice(id, known);
    for (PlacementGraph& graph : m_picture.graphs) {
        KnownGraph& known = m_graphs[graph.id];
        const bool asks = graph.requested || (graph.waiting > 0 && graph.places.empty());
        if (!asks) known.waitsSince = 0.0;
        if (asks && known.waitsSince <= 0.0) known.waitsSince = m_now;
        graph.oldestAge = asks ? m_now - known.waitsSince : 0.0;
    }
}

void DeviceSchedulerAdaptive::drawGraph(uint64_t id, KnownGraph& known) {
    KelmGraph& graph = *known.graph;
    m_drawn[&graph] = m_picture.graphs.size();
    PlacementGraph& drawn = m_picture.graphs.emplace_back();
    drawn.id = id;
    drawn.memory = graph.getMemReq();
    drawn.requested = m_loadGraphs.contains(&graph) && graph.getCachedDeviceNum() == 0;
    drawn.arrivals = graph.getArrivals();
    // The first is too high after cancels, the second counts those at the devices, too.
    const int64_t tasks = std::max<int64_t>(0, graph.getTaskCount());
    drawn.waiting = static_cast<uint32_t>(std::min<int64_t>(graph.getNumWaitTasks(), tasks));
    drawn.taskTime = static_cast<double>(graph.getAvgInferTime()) * 1e-3;
    drawn.loadTime = known.loadTime;
    drawn.cachedTime = known.cachedTime;
    if (const auto found = m_refusals.find(id); found != m_refusals.end()) {
        drawn.refusedBy.assign(found->second.begin(), found->second.end());
    }
}

// A lost or leaving worker is no device any more, but its graphs still name it.
void DeviceSchedulerAdaptive::drawDevice(uint64_t id, KnownWorker& known) {
    std::map<uint64_t, double> since;
    for (KelmGraph* graph : known.worker->getGraphs()) {
        const auto entry = m_drawn.find(graph);
        if (entry == m_drawn.end()) continue;
        PlacementGraph& resident = m_picture.graphs[entry->second];
        const auto seen = known.since.find(resident.id);
        since[resident.id] = seen != known.since.end() ? seen->second : m_now;
        resident.places.push_back({id, since[resident.id]});
    }
    known.since = std::move(since);
    if (known.lost || m_leavingWorkers.contains(id)) return;
    measureSpeed(known);
    PlacementDevice& drawn = m_picture.devices.emplace_back();
    drawn.id = id;
    drawn.memory = known.worker->getDevice()->getMemorySize();
    drawn.slots = m_slots;
    drawn.speed = known.speed;
    for (KelmGraph* graph : known.worker->getDevice()->getCachedGraphList()) {
        if (const auto entry = m_drawn.find(graph); entry != m_drawn.end()) {
            drawn.cached.push_back(m_picture.graphs[entry->second].id);
        }
    }
}

// The work that its results stand for, over the time that it took. Rates and busy shares look back
// for seconds: where graphs come and go they belong to different ones.
void DeviceSchedulerAdaptive::measureSpeed(KnownWorker& known) {
    const auto isNew = [this](const auto& place) REQUIRES(m_onSchedulingThread) {
        return m_now - place.second < kLookBack;
    };
    if (std::ranges::any_of(known.since, isNew)) return;
    const double busy = static_cast<double>(known.worker->getDevice()->getDeviceUtilization());
    if (busy < kBusyEnough) return;
    double work = 0.0;
    for (KelmDeviceBase* device : known.worker->getDevices()) {
        const auto found = m_drawn.find(device->getCurrentGraph());
        if (found == m_drawn.end()) continue;
        work += static_cast<double>(device->getFps()) * m_picture.graphs[found->second].taskTime;
    }
    if (work <= 0.0) return;
    smooth(known.speed, std::clamp(work / busy, kSlowest, kFastest), kFreshSpeed);
}

// Each worker makes room before it loads.
void DeviceSchedulerAdaptive::makeOperations() {
    unloadLeavingGraphs();
    for (const PlacementMove& move : m_plan.moves) {
        if (move.from == 0 || m_leavingWorkers.contains(move.from)) continue;
        makeUnload(m_graphs[move.graph].graph, m_known[move.from].worker, true, ", shallow=True");
    }
    for (const PlacementMove& move : m_plan.moves) {
        if (move.device == 0) continue;
        WorkThread* const worker = m_known[move.device].worker;
        KelmGraph* const graph = m_graphs[move.graph].graph;
        const std::vector<KelmGraph*> cached = worker->getDevice()->getCachedGraphList();
        const bool isCached = std::find(cached.begin(), cached.end(), graph) != cached.end();
        m_loads.push_back({move.graph, graph, move.device, isCached});
        makeLoad(graph, worker);
    }
}

// As the plan says. One load of a graph on a worker is planned at most.
PlacementReason DeviceSchedulerAdaptive::findLoadReason(KelmGraph* graph, WorkThread* worker) {
    const auto move = std::ranges::find_if(
        m_plan.moves, [&](const PlacementMove& planned) REQUIRES(m_onSchedulingThread) {
            return planned.graph == graph->getId() && planned.device != 0 &&
                   m_known[planned.device].worker == worker;
        });
    return move != m_plan.moves.end() ? move->reason
                                      : DeviceSchedulerActive::findLoadReason(graph, worker);
}

// A graph that will be destroyed leaves the cache and the slot: not every device lists its slots'
// graphs as cached.
void DeviceSchedulerAdaptive::unloadLeavingGraphs() {
    for (auto& [id, known] : m_known) {
        if (m_leavingWorkers.contains(id)) continue;
        std::vector<KelmGraph*> held = known.worker->getDevice()->getCachedGraphList();
        const std::set<KelmGraph*> current = known.worker->getGraphs();
        held.insert(held.end(), current.begin(), current.end());
        std::set<KelmGraph*> leaving;
        for (KelmGraph* graph : held) {
            if (!m_unloadGraphs.contains(graph) || !leaving.insert(graph).second) continue;
            makeUnload(graph, known.worker, false, ", shallow=False");
        }
    }
}

void DeviceSchedulerAdaptive::tellPendingStates() {
    std::set<uint64_t> refused;
    for (const PlacementMove& move : m_plan.moves) {
        if (move.action == PlacementAction::Refused) refused.insert(move.graph);
    }
    for (const PlacementGraph& graph : m_picture.graphs) {
        KelmGraph* const record = m_graphs[graph.id].graph;
        const bool pending = refused.contains(graph.id);
        record->setPendingState(pending);
        m_notes.ask(record, record->getDevReqNum());
        if (!pending || m_notes.isRefused(record)) continue;
        m_notes.refuse(record, PlacementReason::Starving, findLack(record));
    }
}

}  // namespace kelm
