#include <chrono>
#include <memory>
#include <utility>

#include "devices/DeviceManagerCreator.h"
#include "managers/ClientManager.h"
#include "managers/GraphManager.h"
#include "managers/TaskManager.h"
#include "records/KelmGraph.h"
#include "utils/Log.h"
#include "utils/Tracer.h"

namespace kelm {
namespace {

// How long the way down waits for devices and tasks to let go.
constexpr std::chrono::seconds kRemoveAllLimit{3};

}  // namespace

void GraphManager::destroyGraph(Request request) {
    const uint64_t clientId = request.getClientId();
    LOG_PROC(m_debugProcess, "[DestroyGraph#0] clientId=%lu graphId=%lu socket=%d userParam=%p",
             clientId, request.as<KelmMsgReqDestroyGraph>().graphId, request.getSocket(),
             request.getMessage());
    if (!ClientManager::instance().verifyRequester(request)) {
        LOG_ERROR("Error: invalid clientId %lu", clientId);
        sendDestroyGraphResponse(KELM_ERROR_INVALID_CLIENT, std::move(request));
        return;
    }
    KelmError error = KELM_OK;
    uint64_t trace = 0;
    {
        MutexLock lock(m_mutex);
        error = giveUpGraphUnsafe(request, trace);
    }
    sendDestroyGraphResponse(error, std::move(request));
    if (error == KELM_OK) TraceEndCsv(trace);
}

KelmError GraphManager::giveUpGraphUnsafe(const Request& request, uint64_t& trace) {
    const uint64_t clientId = request.getClientId();
    const uint64_t graphId = request.as<KelmMsgReqDestroyGraph>().graphId;
    const auto entry = m_graphs.find(graphId);
    if (entry == m_graphs.end()) {
        LOG_ERROR("Error: invalid graphId(%lu)", graphId);
        return KELM_ERROR_INVALID_GRAPH;
    }
    KelmGraph* graph = entry->second;
    if (!graph->removeUser(clientId)) {
        LOG_ERROR("Error: client(%lu) has no rights on graph(%lu)", clientId, graphId);
        return KELM_ERROR_NO_RIGHTS;
    }
    trace = traceBegin("unload_graph_", graphId);
    if (graph->isRunning()) {
        // Deliberate: a client that gives up its share loses its tasks on every graph, and the
        // graph stays loaded for the others.
        TaskManager::instance().enqueueNotifyClientInDestroy(clientId);
    } else {
        retireGraphUnsafe(graph);
        LOG_PROC(m_debugProcess, "[DestroyGraph#1] clientId=%lu graphId=%lu socket=%d userParam=%p",
                 clientId, graphId, request.getSocket(), request.getMessage());
    }
    return KELM_OK;
}

void GraphManager::retireGraphUnsafe(KelmGraph* graph) {
    m_loadedGraphs.erase(graph);
    releaseWaitingUnsafe(graph);
    m_graphs.erase(graph->getId());
    notifyDeallocatedGraph(graph);
}

void GraphManager::releaseWaitingUnsafe(KelmGraph* graph) {
    // Deliberate: requests that waited for the load of a graph that is given up get no answer.
    if (m_responseLists.erase(graph) == 0) return;
    TraceEndCsv(graph->getLoadTraceIndex());  // the notice of the load's end finds no entry
}

void GraphManager::notifyDeallocatedGraph(KelmGraph* graph) {
    Deallocation& deallocation = m_deallocatingGraphs[graph];
    // Without a device manager nobody confirms. The notice of the load that failed for the same
    // reason is in the queue by now, ahead of the task manager's confirmation.
    deallocation.unloadDone = !DeviceManagerCreator::instance().enqueueUnloadGraph(graph);
    TaskManager::instance().enqueueNotifyGraphInDestroy(graph);
}

void GraphManager::notifyUnloadGraphDone(KelmGraph* graph) {
    std::unique_ptr<KelmGraph> record;
    {
        MutexLock lock(m_mutex);
        record = confirmUnsafe(graph, &Deallocation::unloadDone);
    }
    if (record) LOG_INFO("graph(%lu) destroyed", record->getId());
}

void GraphManager::notifyAllTasksDone(KelmGraph* graph) {
    std::unique_ptr<KelmGraph> record;
    {
        MutexLock lock(m_mutex);
        if (m_failedGraphs.erase(graph) != 0) {
            m_goneCond.notifyAll();
            delete graph;
            return;
        }
        record = confirmUnsafe(graph, &Deallocation::allTasksDone);
    }
    if (record) LOG_INFO("graph(%lu) destroyed", record->getId());
}

std::unique_ptr<KelmGraph> GraphManager::confirmUnsafe(KelmGraph* graph,
                                                       bool Deallocation::*confirmation) {
    const auto entry = m_deallocatingGraphs.find(graph);
    if (entry == m_deallocatingGraphs.end()) return nullptr;
    entry->second.*confirmation = true;
    if (!entry->second.unloadDone || !entry->second.allTasksDone) return nullptr;
    m_deallocatingGraphs.erase(entry);
    --m_graphNum;
    m_goneCond.notifyAll();
    return std::unique_ptr<KelmGraph>(graph);
}

void GraphManager::notifyClientInDestroy(uint64_t clientId) {
    MutexLock lock(m_mutex);
    LOG_PROC(m_debugProcess, "revoke graph privileges assigned for client(id:%lu)", clientId);
    int numCleaned = 0;
    for (auto entry = m_graphs.begin(); entry != m_graphs.end();) {
        KelmGraph* graph = (entry++)->second;  // retiring takes it out of the map
        graph->removeUser(clientId);
        if (graph->isRunning()) continue;
        retireGraphUnsafe(graph);
        ++numCleaned;
    }
    LOG_PROC(m_debugProcess, "graph clean work done for unregister client(id:%lu), numCleaned=%d",
             clientId, numCleaned);
}

void GraphManager::removeAllGraphs() {
    const auto deadline = std::chrono::steady_clock::now() + kRemoveAllLimit;
    m_stopped.store(true);
    // Requests that have begun queue one turn after the other, of which the next one is the last
    // now. A late thread is told by m_stopped.
    (void)m_pool.waitIdleFor(kRemoveAllLimit);
    MutexLock lock(m_mutex);
    // One that is going away already is in m_graphs no more, so no device is told twice.
    while (!m_graphs.empty()) retireGraphUnsafe(m_graphs.begin()->second);
    while (!m_deallocatingGraphs.empty() || !m_failedGraphs.empty()) {
        if (m_goneCond.waitUntil(m_mutex, deadline)) continue;
        LOG_WARN("Warn: %lu graphs are still in use",
                 m_deallocatingGraphs.size() + m_failedGraphs.size());
        break;
    }
}

}  // namespace kelm
