#include "scheduling/devices/PlugoutWorkerOperation.h"

#include "execution/KelmDeviceBase.h"
#include "execution/WorkThread.h"
#include "records/KelmGraph.h"
#include "scheduling/devices/WorkerRemovalListener.h"
#include "utils/Log.h"
#include "utils/Port.h"
#include "utils/StepTrace.h"
#include "utils/TextHelper.h"

namespace kelm {

std::unique_ptr<PlugoutWorkerOperation> PlugoutWorkerOperation::create(WorkThread* worker) {
    if (worker == nullptr) {
        LOG_ERROR("Forbid nullptr as input parameter");
        return nullptr;
    }
    return std::unique_ptr<PlugoutWorkerOperation>(new PlugoutWorkerOperation(worker));
}

PlugoutWorkerOperation::PlugoutWorkerOperation(WorkThread* worker) : m_worker(worker) {}

// No other operation of the plan touches this worker: it left the scheduler's view before.
void PlugoutWorkerOperation::operation() {
    for (KelmGraph* graph : m_worker->getGraphs()) {
        const std::string graphName = graph->getName();
        LOG_STEP("unload [%s] from reset device [%s]", escapeControls(graphName),
                 m_worker->getName());
        m_futures[graph] = {graphName, m_worker->enqueueUnloadGraph(graph, false)};
    }
}

// A failed unload must not end this early: without the notice the worker is never destroyed.
void PlugoutWorkerOperation::wait() {
    for (const auto& [graph, unload] : m_futures) {
        LOG_STEP("wait unload [%s] from reset device [%s] done", escapeControls(unload.graphName),
                 m_worker->getName());
        // The value does not matter: the device has left the bus.
        waitDone(unload.future, "unload", unload.graphName, *m_worker);
    }
    // Graphs that the device has only cached have no slave worker that forgets them: once the pass
    // is reported their records may be destroyed.
    if (KelmDeviceBase* const device = m_worker->getDevice()) device->forgetGraphs();
    LOG_STEP("tell DM to delete reset device [%s]", m_worker->getName());
    Port<WorkerRemovalListener>::notify<&WorkerRemovalListener::enqueueRemoveWorkerDone>(m_worker);
}

}  // namespace kelm
