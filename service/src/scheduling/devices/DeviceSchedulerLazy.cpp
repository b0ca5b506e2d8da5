#include "scheduling/devices/DeviceSchedulerLazy.h"

#include "execution/WorkThread.h"
#include "records/KelmGraph.h"
#include "scheduling/devices/UnloadGraphOperation.h"
#include "utils/Log.h"
#include "utils/StepTrace.h"
#include "utils/TextHelper.h"

namespace kelm {

namespace {

// The pass for a load that is still unanswered comes after this time, also without a request.
constexpr std::chrono::seconds kTimeToAnswer{5};

}  // namespace

// One wait and no loop: a spurious wake-up is a pass like any other. Without a limit, but for a
// load that is still to be answered, since no other request need follow it.
bool DeviceSchedulerLazy::waitChangeRequest() {
    const auto deadline = std::chrono::steady_clock::now() + kTimeToAnswer;
    const bool answered = m_loadGraphs.empty();
    MutexLock lock(m_requestMutex);
    if (hasReasonToWakeUnsafe()) return !m_stop;
    if (answered) {
        m_requestCond.wait(m_requestMutex);
    } else {
        (void)m_requestCond.waitUntil(m_requestMutex, deadline);
    }
    return !m_stop;
}

void DeviceSchedulerLazy::schedule() {
    while (waitChangeRequest()) makePass();
}

// A plan is never dropped here: requests that come meanwhile are served by the next pass.
void DeviceSchedulerLazy::makePass() {
    updateChangeRequest();
    storeChangeRequests();
    collectAndClassify();
    if (mapResource()) commitChangeOperation();
}

// Called again in each pass while the worker is held; the log tells of it once.
void DeviceSchedulerLazy::handleLostWorker(WorkThread* worker) {
    if (!m_lostWorkers.insert(worker).second) return;
    LOG_WARN("Warn: the device of worker(%s) is lost, it gets no more graphs", worker->getName());
}

// Any will do: devices of one scheduler are alike, and neither tags nor streams look at caches.
WorkThread* DeviceSchedulerLazy::takeIdleWorker() {
    return m_idleWorkers.extract(m_idleWorkers.begin()).value();
}

void DeviceSchedulerLazy::makeIdle(const std::vector<WorkThread*>& workers) {
    for (WorkThread* worker : workers) {
        if (!m_lostWorkers.contains(worker)) m_idleWorkers.insert(worker);
    }
}

// A worker that is added and removed in the same pass is not idle: nothing may be loaded onto it.
void DeviceSchedulerLazy::collectAndClassify() {
    m_idleWorkers.clear();
    m_graphWorkers.clear();
    m_strandedGraphs.clear();
    // A lost worker that has been plugged out is destroyed; a new one may live at its address.
    std::erase_if(m_lostWorkers, [this](WorkThread* worker) REQUIRES(m_onSchedulingThread) {
        return !m_workers.contains(worker);
    });
    for (WorkThread* worker : m_addWorkers) {
        if (!m_removeWorkers.contains(worker)) classify(worker);
    }
    for (WorkThread* worker : m_workers) {
        if (!m_removeWorkers.contains(worker)) classify(worker);
    }
}

void DeviceSchedulerLazy::classify(WorkThread* worker) {
    // One that failed with tasks in flight makes no operation fail, and need not leave the bus.
    if (worker->isFailed()) handleLostWorker(worker);
    const std::set<KelmGraph*> graphs = worker->getGraphs();
    if (graphs.empty()) return makeIdle({worker});
    for (KelmGraph* graph : graphs) {
        if (m_lostWorkers.contains(worker) && !m_unloadGraphs.contains(graph)) {
            strand(graph, worker);
        } else {
            m_graphWorkers[graph].push_back(worker);
        }
    }
}

// The lost worker forgets the graph, so that it can be loaded elsewhere, or its creator be told
// that it cannot.
void DeviceSchedulerLazy::strand(KelmGraph* graph, WorkThread* worker) {
    m_operations.push_back(UnloadGraphOperation::create(graph, worker, false));
    noteUnload(graph, worker);
    LOG_STEP("NEW UnloadGraphOperation(graph=%s worker=%s), device lost",
             escapeControls(graph->getName()), worker->getName());
    m_strandedGraphs.insert(graph);
}

}  // namespace kelm
