#include "scheduling/devices/UnloadGraphOperation.h"

#include <utility>

#include "execution/WorkThread.h"
#include "records/KelmGraph.h"
#include "utils/Log.h"
#include "utils/StepTrace.h"
#include "utils/TextHelper.h"

namespace kelm {

std::unique_ptr<UnloadGraphOperation> UnloadGraphOperation::create(KelmGraph* graph,
                                                                   WorkThread* worker,
                                                                   bool shallow) {
    if (graph == nullptr || worker == nullptr) {
        LOG_ERROR("Forbid nullptr as input parameter");
        return nullptr;
    }
    return std::unique_ptr<UnloadGraphOperation>(new UnloadGraphOperation(graph, worker, shallow));
}

UnloadGraphOperation::UnloadGraphOperation(KelmGraph* graph, WorkThread* worker, bool shallow)
    : m_shallow(shallow), m_graph(graph), m_worker(worker), m_graphName(graph->getName()) {}

void UnloadGraphOperation::operation() {
    LOG_STEP("unload [%s] from [%s]", escapeControls(m_graphName), m_worker->getName());
    m_future = m_worker->enqueueUnloadGraph(m_graph, m_shallow);
}

void UnloadGraphOperation::wait() {
    if (!m_future.valid()) return;
    LOG_STEP("wait unload [%s] from [%s] done", escapeControls(m_graphName), m_worker->getName());
    // Taken out first: an exception from the job must not leave a future for a second wait.
    const std::shared_future<int> future = std::exchange(m_future, {});
    waitDone(future, "unload", m_graphName, *m_worker);
    m_retCode = future.get();
    LOG_STEP("unload [%s] from [%s] done, retCode=%d", escapeControls(m_graphName),
             m_worker->getName(), m_retCode);
}

bool UnloadGraphOperation::isOperation(KelmGraph* graph, StatusChangeRequestType type) {
    return type == REQUEST_UNLOAD_GRAPH && graph == m_graph;
}

// The answer to an unload may be the first sign of a device that died under its graph: the next
// graph must not be given to it.
WorkThread* UnloadGraphOperation::getLostWorker() const {
    return isDeviceLost() ? m_worker : nullptr;
}

}  // namespace kelm
