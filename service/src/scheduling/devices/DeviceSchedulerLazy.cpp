#include "scheduling/devices/DeviceSchedulerLazy.h"

#include "execution/WorkThread.h"

namespace kelm {

// One wait and no loop: a spurious wake-up is a pass like any other.
bool DeviceSchedulerLazy::waitChangeRequest() {
    MutexLock lock(m_requestMutex);
    if (!m_stop && m_newRequests.empty()) m_requestCond.wait(m_requestMutex);
    return !m_stop;
}

void DeviceSchedulerLazy::schedule() {
    while (waitChangeRequest()) {
        updateChangeRequest();
        storeChangeRequests();
        collectAndClassify();
        if (mapResource()) commitChangeOperation();
    }
}

// A worker that came and goes in the same pass is not idle: nothing may be loaded onto it.
void DeviceSchedulerLazy::collectAndClassify() {
    m_idleWorkers.clear();
    m_graphWorkers.clear();
    for (WorkThread* worker : m_addWorkers) {
        if (!m_removeWorkers.contains(worker)) m_idleWorkers.insert(worker);
    }
    for (WorkThread* worker : m_workers) {
        if (!m_removeWorkers.contains(worker)) classify(worker);
    }
}

void DeviceSchedulerLazy::classify(WorkThread* worker) {
    const std::set<KelmGraph*> graphs = worker->getGraphs();
    if (graphs.empty()) {
        m_idleWorkers.insert(worker);
        return;
    }
    for (KelmGraph* graph : graphs) {
        if (graph != nullptr) m_graphWorkers[graph].push_back(worker);
    }
}

}  // namespace kelm
