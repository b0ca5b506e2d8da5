#include "scheduling/devices/DeviceSchedulerBase.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "config/ServiceConfigParser.h"
#include "execution/KelmDeviceBase.h"
#include "execution/WorkThread.h"
#include "records/KelmGraph.h"
#include "scheduling/devices/GraphPlacementListener.h"
#include "scheduling/devices/LoadGraphOperation.h"
#include "scheduling/devices/PlugoutWorkerOperation.h"
#include "scheduling/devices/UnloadGraphOperation.h"
#include "utils/ErrorHelper.h"
#include "utils/Log.h"
#include "utils/MemoryReserve.h"
#include "utils/Port.h"
#include "utils/StepTrace.h"
#include "utils/TextHelper.h"
#include "utils/ThreadUtils.h"

namespace kelm {

namespace {

// Failed loads of a graph, over all devices, after which its creator is told.
constexpr uint32_t kMaxLoadFails = 2;

// What a job or a stopped pool throws counts as the operation's failure: no exception may end the
// scheduling thread.
void runStep(StatusChangeOperation& operation, void (StatusChangeOperation::*step)(),
             const std::string& schedulerName) {
    try {
        (operation.*step)();
        return;
    } catch (const std::exception& error) {
        LOG_ERROR("Error: DeviceScheduler(%s) operation ended with an exception: %s", schedulerName,
                  error.what());
    } catch (...) {
        LOG_ERROR("Error: DeviceScheduler(%s) operation ended with an unknown exception",
                  schedulerName);
    }
    operation.setFailed(KELM_ERROR_DEVICE_FAILED);
}

}  // namespace

DeviceSchedulerBase::DeviceSchedulerBase(const char* name)
    : m_name(name),
      m_trace(ServiceConfigParser::instance().isDeviceSchedulerDebugProcessEnabled()) {}

// The thread calls operations of the derived class, which is destroyed by now: its destructor must
// have joined. A thread that was left behind still uses this object.
DeviceSchedulerBase::~DeviceSchedulerBase() {
    CR_ASSERT(!m_thread.joinable() && !m_abandoned, "scheduler destroyed under its thread");
}

void DeviceSchedulerBase::loadGraph(KelmGraph* graph) { postRequest(REQUEST_LOAD_GRAPH, graph); }

void DeviceSchedulerBase::unloadGraph(KelmGraph* graph) {
    postRequest(REQUEST_UNLOAD_GRAPH, graph);
}

void DeviceSchedulerBase::addWorker(WorkThread* worker) { postRequest(REQUEST_ADD_WORKER, worker); }

void DeviceSchedulerBase::removeWorker(WorkThread* worker) {
    postRequest(REQUEST_REMOVE_WORKER, worker);
}

// One waiter at most: the scheduling thread. Requests of one client keep their order, but a pass
// sorts them into sets, see storeChangeRequests().
void DeviceSchedulerBase::postRequest(StatusChangeRequestType type, void* data) {
    MutexLock lock(m_requestMutex);
    m_newRequests.emplace_back(type, data);
    m_requestCond.notifyOne();
}

// A flag, not a request: what failed is found by the pass itself, which asks every worker.
void DeviceSchedulerBase::wake() {
    MutexLock lock(m_requestMutex);
    m_woken = true;
    m_requestCond.notifyOne();
}

// Not in the constructor: the thread calls operations that only the complete object has.
void DeviceSchedulerBase::start() {
    m_thread = std::thread([this] { run(); });
}

void DeviceSchedulerBase::run() {
    m_onSchedulingThread.assertHeld();
    ThreadUtils::setName(m_name);
    ThreadUtils::saveThreadInfo(m_name);
    // A pass that ended halfway would leave the plan, the devices and this object at odds.
    const MemoryReserve::Patience patience(MemoryReserve::kAnyTime);
    schedule();
    MutexLock lock(m_requestMutex);
    m_finished = true;
    m_finishedCond.notifyAll();
}

bool DeviceSchedulerBase::stop(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    {
        MutexLock lock(m_requestMutex);
        m_stop = true;
        m_requestCond.notifyOne();
        // A second call: the thread was joined, or left behind by the first.
        if (!m_thread.joinable()) return !m_abandoned;
        bool timely = true;
        while (!m_finished && timely) timely = m_finishedCond.waitUntil(m_requestMutex, deadline);
        m_abandoned = !m_finished;
        if (m_abandoned) {
            m_thread.detach();
            LOG_ERROR("Error: DeviceScheduler(%s) waits for a device without end, left behind",
                      m_name);
            return false;
        }
    }
    m_thread.join();
    return true;
}

// Does nothing after stop(), which has joined or detached the thread.
void DeviceSchedulerBase::join() {
    if (!m_thread.joinable()) return;
    {
        MutexLock lock(m_requestMutex);
        m_stop = true;
        m_requestCond.notifyOne();
    }
    m_thread.join();
}

bool DeviceSchedulerBase::isAbandoned() {
    MutexLock lock(m_requestMutex);
    return m_abandoned;
}

// `m_woken` falls before the pass looks at the workers: a device that fails later in the pass wakes
// the next one.
void DeviceSchedulerBase::updateChangeRequest() {
    MutexLock lock(m_requestMutex);
    m_woken = false;
    m_takenRequests.splice(m_takenRequests.end(), m_newRequests);
}

// Adds to the sets that a dropped plan or a retried load has left. Sets, so that a request that is
// repeated counts once.
void DeviceSchedulerBase::storeChangeRequests() {
    m_notes.forgetPass();  // those of a plan that was dropped
    for (const StatusChangeRequest& request : m_takenRequests) {
        KelmGraph* const graph = static_cast<KelmGraph*>(request.getData());
        WorkThread* const worker = static_cast<WorkThread*>(request.getData());
        switch (request.getType()) {
            case REQUEST_LOAD_GRAPH:
                m_loadGraphs.insert(graph);
                break;
            case REQUEST_UNLOAD_GRAPH:
                storeUnloadRequest(graph);
                break;
            case REQUEST_ADD_WORKER:
                m_addWorkers.insert(worker);
                break;
            case REQUEST_REMOVE_WORKER:
                m_removeWorkers.insert(worker);
                break;
            default:
                LOG_ERROR("Error: Unknown StatusChangeRequestType: %d.", request.getType());
                break;
        }
    }
    m_takenRequests.clear();
}

// A load that has not come to an end is taken back without a word to its creator. The unload is
// answered all the same, or the record of the graph would stay for ever.
void DeviceSchedulerBase::storeUnloadRequest(KelmGraph* graph) {
    m_loadGraphs.erase(graph);
    m_unloadGraphs.insert(graph);
}

std::string DeviceSchedulerBase::describe(KelmGraph* graph) {
    return "graph=" + escapeControls(graph->getName());
}

void DeviceSchedulerBase::makeLoad(KelmGraph* graph, WorkThread* worker) {
    m_operations.push_back(LoadGraphOperation::create(graph, worker));
    m_notes.load(graph, worker, findLoadReason(graph, worker), *m_operations.back());
    LOG_STEP("NEW LoadGraphOperation(%s worker=%s)", describe(graph), worker->getName());
}

void DeviceSchedulerBase::makeUnload(KelmGraph* graph, WorkThread* worker, bool shallow,
                                     const char* note) {
    m_operations.push_back(UnloadGraphOperation::create(graph, worker, shallow));
    noteUnload(graph, worker);
    LOG_STEP("NEW UnloadGraphOperation(%s worker=%s%s)", describe(graph), worker->getName(), note);
}

void DeviceSchedulerBase::makePlugout(WorkThread* worker) {
    m_operations.push_back(PlugoutWorkerOperation::create(worker));
    for (KelmGraph* graph : worker->getGraphs()) noteUnload(graph, worker);
    LOG_STEP("NEW PlugoutWorkerOperation(worker=%s)", worker->getName());
}

// A graph that nobody waits for and that another device holds comes by demand.
PlacementReason DeviceSchedulerBase::findLoadReason(KelmGraph* graph, WorkThread* /*worker*/) {
    const bool isAwaited = m_loadGraphs.contains(graph) || graph->getNumWaitTasks() > 0;
    return isAwaited && graph->getRunningDeviceNum() == 0 ? PlacementReason::Starving
                                                          : PlacementReason::Demand;
}

// A worker that leaves may have been destroyed: not followed.
PlacementLack DeviceSchedulerBase::findLack(KelmGraph* graph) {
    uint32_t largest = 0;
    for (const auto* workers : {&m_workers, &m_addWorkers}) {
        for (WorkThread* worker : *workers) {
            if (m_removeWorkers.contains(worker) || worker->isFailed()) continue;
            largest = std::max(largest, worker->getDevice()->getMemorySize());
        }
    }
    if (largest == 0) return PlacementLack::Devices;
    return graph->getMemReq() > largest ? PlacementLack::Memory : PlacementLack::Slots;
}

void DeviceSchedulerBase::noteUnload(KelmGraph* graph, WorkThread* worker) {
    PlacementReason reason = PlacementReason::Demand;
    if (m_unloadGraphs.contains(graph)) {
        reason = PlacementReason::ClientGone;
    } else if (worker->isFailed() || m_removeWorkers.contains(worker)) {
        reason = worker->wasResetLately() ? PlacementReason::Reset : PlacementReason::LostDevice;
    }
    m_notes.unload(graph, worker, reason);
}

// All operations are begun before the first is waited for, so that workers load in parallel. The
// order of the rest matters: failed loads are taken off their workers before the graphs are judged
// by what the devices hold, and nothing is reported while this scheduler still refers to it.
void DeviceSchedulerBase::commitChangeOperation() {
    executeOperations();
    if (!waitOperations()) return;
    handleFailedOperations();
    std::set<KelmGraph*> retries;
    const std::vector<LoadOutcome> outcomes = judgeLoads(retries);
    tellNotes(outcomes);
    const std::set<KelmGraph*> unloaded = std::exchange(m_unloadGraphs, {});
    updateWorkers();
    m_operations.clear();
    m_loadGraphs = std::move(retries);
    // Last: once its notice is out, a graph's record may be deleted and its address used anew.
    report(outcomes, unloaded);
}

// In the order of the plan: an unload frees its slot on the worker as soon as it is queued, and a
// load behind it finds that slot.
void DeviceSchedulerBase::executeOperations() {
    for (const auto& operation : m_operations) {
        runStep(*operation, &StatusChangeOperation::execute, m_name);
    }
}

bool DeviceSchedulerBase::waitOperations() {
    for (const auto& operation : m_operations) {
        runStep(*operation, &StatusChangeOperation::wait, m_name);
        if (isAbandoned()) return false;  // graphs and workers may be destroyed: not followed
    }
    return true;
}

// After all waits: a device that is found lost must be lost for every graph that is judged next.
void DeviceSchedulerBase::handleFailedOperations() {
    for (const auto& operation : m_operations) {
        operation->releaseFailed();
        if (WorkThread* const worker = operation->getLostWorker()) handleLostWorker(worker);
    }
}

// A graph counts as loaded if any device has it, even if the load of this pass failed elsewhere.
std::vector<DeviceSchedulerBase::LoadOutcome> DeviceSchedulerBase::judgeLoads(
    std::set<KelmGraph*>& retries) {
    std::vector<LoadOutcome> outcomes;
    for (KelmGraph* graph : m_loadGraphs) {
        if (graph->getCachedDeviceNum() != 0) {
            outcomes.push_back({graph, KELM_OK});
            continue;
        }
        handleLoadGraphFail(graph);  // first: a graph that is tried again is new to the next plan
        const bool triesLeft = m_retryLoadGraph && graph->getLoadFailCount() < kMaxLoadFails;
        if (triesLeft || isOnWorker(graph)) {
            retries.insert(graph);
            continue;
        }
        const KelmError error = findLoadError(graph);
        LOG_ERROR("Error: DeviceScheduler(%s) failed to loadGraph(%lu), error=%d", m_name,
                  graph->getId(), error);
        outcomes.push_back({graph, error});
    }
    return outcomes;
}

// A device that died right after it took the graph no longer counts as holding it, but its worker
// still refers to it: the creator must not be told to give the graph up before that has ended.
bool DeviceSchedulerBase::isOnWorker(KelmGraph* graph) {
    const auto holds = [&](WorkThread* worker) REQUIRES(m_onSchedulingThread) {
        return !m_removeWorkers.contains(worker) && worker->getGraphs().contains(graph);
    };
    return std::any_of(m_workers.begin(), m_workers.end(), holds) ||
           std::any_of(m_addWorkers.begin(), m_addWorkers.end(), holds);
}

bool DeviceSchedulerBase::hasLoad(KelmGraph* graph) {
    return std::ranges::any_of(m_operations, [graph](const auto& operation) {
        return operation->isOperation(graph, REQUEST_LOAD_GRAPH);
    });
}

// While operations, graphs and workers may still be followed. A load that a device refused has its
// own note.
void DeviceSchedulerBase::tellNotes(const std::vector<LoadOutcome>& outcomes) {
    for (const auto& [graph, error] : outcomes) {
        if (error == KELM_OK || hasLoad(graph)) continue;
        m_notes.refuse(graph, PlacementReason::Starving, findLack(graph), error);
    }
    m_notes.tell();
    for (const auto& [graph, error] : outcomes) {
        if (error != KELM_OK) m_notes.forgetGraph(graph);
    }
    for (KelmGraph* graph : m_unloadGraphs) m_notes.forgetGraph(graph);
}

// By the first load of the graph in the plan. A graph without any got no device from the plan.
KelmError DeviceSchedulerBase::findLoadError(KelmGraph* graph) {
    for (const auto& operation : m_operations) {
        if (operation->isOperation(graph, REQUEST_LOAD_GRAPH)) {
            return static_cast<KelmError>(operation->getRetCode());
        }
    }
    return KELM_ERROR_NO_DEVICE_AVAILABLE;
}

// A worker that was added and removed within the pass may have been destroyed: not followed.
void DeviceSchedulerBase::updateWorkers() {
    for (WorkThread* worker : m_removeWorkers) m_workers.erase(worker);
    for (WorkThread* worker : m_addWorkers) {
        if (!m_removeWorkers.contains(worker) && worker->isReady()) m_workers.insert(worker);
    }
    m_addWorkers.clear();
    m_removeWorkers.clear();
}

void DeviceSchedulerBase::report(const std::vector<LoadOutcome>& outcomes,
                                 const std::set<KelmGraph*>& unloaded) {
    using Listener = GraphPlacementListener;
    try {
        for (const auto& [graph, error] : outcomes) {
            Port<Listener>::notify<&Listener::enqueueNotifyLoadGraphDone>(graph, error);
        }
        for (KelmGraph* graph : unloaded) {
            Port<Listener>::notify<&Listener::enqueueNotifyUnloadGraphDone>(graph);
        }
    } catch (const std::exception& error) {  // the listener is being stopped
        LOG_ERROR("Error: DeviceScheduler(%s) cannot report: %s", m_name, error.what());
    }
}

}  // namespace kelm
