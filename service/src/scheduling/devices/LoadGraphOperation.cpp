#include "scheduling/devices/LoadGraphOperation.h"

#include <utility>

#include "execution/WorkThread.h"
#include "protocol/src/KelmError.h"
#include "records/KelmGraph.h"
#include "utils/Log.h"
#include "utils/StepTrace.h"
#include "utils/TextHelper.h"

namespace kelm {

std::unique_ptr<LoadGraphOperation> LoadGraphOperation::create(KelmGraph* graph,
                                                               WorkThread* worker) {
    if (graph == nullptr || worker == nullptr) {
        LOG_ERROR("Forbid nullptr as input parameter");
        return nullptr;
    }
    return std::unique_ptr<LoadGraphOperation>(new LoadGraphOperation(graph, worker));
}

LoadGraphOperation::LoadGraphOperation(KelmGraph* graph, WorkThread* worker)
    : m_graph(graph), m_worker(worker), m_graphName(graph->getName()) {}

void LoadGraphOperation::operation() {
    LOG_STEP("load [%s] to [%s]", escapeControls(m_graphName), m_worker->getName());
    m_future = m_worker->enqueueLoadGraph(m_graph);
}

// Nothing to wait for if execute() threw: then the code that setFailed() has noted stands.
void LoadGraphOperation::wait() {
    if (!m_future.valid()) return;
    LOG_STEP("wait load [%s] to [%s] done", escapeControls(m_graphName), m_worker->getName());
    // Taken out first: an exception from the job must not leave a future for a second wait.
    const std::shared_future<int> future = std::exchange(m_future, {});
    waitDone(future, "load", m_graphName, *m_worker);
    m_retCode = future.get();
    LOG_STEP("load [%s] to [%s] done, retCode=%d", escapeControls(m_graphName), m_worker->getName(),
             m_retCode);
}

bool LoadGraphOperation::isOperation(KelmGraph* graph, StatusChangeRequestType type) {
    return type == REQUEST_LOAD_GRAPH && graph == m_graph;
}

// At once: the worker frees the slot on its own later, and by then the graph's record may have been
// destroyed.
void LoadGraphOperation::releaseFailed() {
    if (m_retCode != KELM_OK) m_worker->removeInvalidGraph(m_graph);
}

WorkThread* LoadGraphOperation::getLostWorker() const {
    return isDeviceLost() ? m_worker : nullptr;
}

}  // namespace kelm
