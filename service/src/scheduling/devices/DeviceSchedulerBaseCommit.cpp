#include <algorithm>
#include <exception>
#include <utility>

#include "execution/WorkThread.h"
#include "records/KelmGraph.h"
#include "scheduling/devices/DeviceSchedulerBase.h"
#include "scheduling/devices/GraphPlacementListener.h"
#include "utils/Log.h"
#include "utils/Port.h"

namespace kelm {

namespace {

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

void DeviceSchedulerBase::commitChangeOperation() {
    executeOperations();
    if (!waitOperations()) return;
    handleFailedOperations();
    std::set<KelmGraph*> retries;
    const std::vector<LoadOutcome> outcomes = judgeLoads(retries);
    const std::set<KelmGraph*> unloaded = std::exchange(m_unloadGraphs, {});
    updateWorkers();
    m_operations.clear();
    m_loadGraphs = std::move(retries);
    // Last: once its notice is out, a graph's record may be deleted and its address used anew.
    report(outcomes, unloaded);
}

void DeviceSchedulerBase::executeOperations() {
    for (const auto& operation : m_operations) {
        runStep(*operation, &StatusChangeOperation::execute, m_name);
    }
}

bool DeviceSchedulerBase::waitOperations() {
    for (const auto& operation : m_operations) {
        runStep(*operation, &StatusChangeOperation::wait, m_name);
        if (isAbandoned()) return false;
    }
    return true;
}

void DeviceSchedulerBase::handleFailedOperations() {
    for (const auto& operation : m_operations) {
        operation->releaseFailed();
        if (WorkThread* const worker = operation->getLostWorker()) handleLostWorker(worker);
    }
}

std::vector<DeviceSchedulerBase::LoadOutcome> DeviceSchedulerBase::judgeLoads(
    std::set<KelmGraph*>& retries) {
    std::vector<LoadOutcome> outcomes;
    for (KelmGraph* graph : m_loadGraphs) {
        if (graph->getCachedDeviceNum() != 0) {
            outcomes.push_back({graph, KELM_OK});
            continue;
        }
        handleLoadGraphFail(graph);
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

KelmError DeviceSchedulerBase::findLoadError(KelmGraph* graph) {
    for (const auto& operation : m_operations) {
        if (operation->isOperation(graph, REQUEST_LOAD_GRAPH)) {
            return static_cast<KelmError>(operation->getRetCode());
        }
    }
    return KELM_ERROR_NO_DEVICE_AVAILABLE;
}

// A worker that came and went within the pass is already on its way to deletion: not followed.
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
