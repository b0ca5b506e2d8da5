#include "managers/GraphManager.h"

#include <chrono>
#include <memory>
#include <utility>

#include "config/ServiceConfigParser.h"
#include "devices/DeviceManagerCreator.h"
#include "managers/ClientManager.h"
#include "managers/ResultDispatcher.h"
#include "managers/TaskManager.h"
#include "records/KelmGraph.h"
#include "reporting/InfoCollector.h"
#include "utils/Log.h"
#include "utils/Port.h"
#include "utils/StepTrace.h"
#include "utils/TextHelper.h"
#include "utils/Tracer.h"

namespace kelm {

namespace {

// How long the stopping service waits for devices to unload the graphs and for their tasks to end.
constexpr std::chrono::seconds kRemoveAllLimit{3};

}  // namespace

GraphManager::GraphManager()
    : m_printFps(ServiceConfigParser::instance().isPrintGraphFpsEnabled()),
      m_trace(ServiceConfigParser::instance().isGraphManagerDebugProcessEnabled()),
      m_snapshotBase(ServiceConfigParser::instance().getGraphSnapshotMode() == "base"),
      m_graphIdentity(ServiceConfigParser::instance().getGraphIdentity()),
      m_turns(m_pool),
      m_pool("GraphMgr", 1, 100) {
    const int limit = ServiceConfigParser::instance().getMaxGraphNumber();
    if (limit > 0) m_maxGraphNum = limit;
    if (m_printFps || m_snapshotBase) {
        Port<InfoCollector>::notify<&InfoCollector::registerListener>(this);
    }
}

GraphManager::~GraphManager() {
    Port<GraphPlacementListener>::disconnect();
    LOG_STEP("to destruct graph manager");
    Port<InfoCollector>::notify<&InfoCollector::unregisterListener>(this);
    m_stopped.store(true);
    MutexLock lock(m_mutex);
    // A record in m_deallocatingGraphs is left behind: the device that has not unloaded the graph
    // may still read it.
    for (KelmGraph* graph : m_loadedGraphs) {
        LOG_ERROR("[~GraphManager()][Graph: %s] delete graph(%p)", escapeControls(graph->getName()),
                  graph);
        delete graph;
    }
    // Jobs that the pool still runs find no graph here, and so call no manager that is destroyed.
    m_loadedGraphs.clear();
    while (!m_responseLists.empty()) releaseWaitingUnsafe(m_responseLists.begin()->first);
    m_graphs.clear();
    LOG_STEP("graph manager destructed");
}

void GraphManager::enqueueDestroyGraph(Request request) {
    m_turns.enqueue(std::move(request), 0, [this](Request& owned) {
        destroyGraph(std::move(owned));
        return true;
    });
}

void GraphManager::enqueueQueryBufferSize(Request request) {
    m_turns.enqueue(std::move(request), 0, [this](Request& owned) {
        queryBufferSize(std::move(owned));
        return true;
    });
}

void GraphManager::enqueueNotifyLoadGraphDone(KelmGraph* graph, KelmError error) {
    m_pool.postNotice([this, graph, error] { notifyLoadGraphDone(graph, error); });
}

void GraphManager::enqueueNotifyUnloadGraphDone(KelmGraph* graph) {
    m_pool.postNotice([this, graph] { notifyUnloadGraphDone(graph); });
}

void GraphManager::enqueueNotifyAllTasksDone(KelmGraph* graph) {
    m_pool.postNotice([this, graph] { notifyAllTasksDone(graph); });
}

void GraphManager::enqueueNotifyClientInDestroy(uint64_t clientId) {
    m_pool.postNotice([this, clientId] { notifyClientInDestroy(clientId); });
}

KelmGraph* GraphManager::getGraphById(uint64_t graphId) {
    MutexLock lock(m_mutex);
    const auto graph = m_graphs.find(graphId);
    return graph != m_graphs.end() ? graph->second : nullptr;
}

void GraphManager::queryBufferSize(Request request) {
    const uint64_t clientId = request.getClientId();
    const uint64_t graphId = request.as<KelmMsgReqQueryBufferSize>().graphId;
    LOG_STEP("[QueryBufferSize#0] clientId=%lu graphId=%lu socket=%d userParam=%p", clientId,
             graphId, request.getSocket(), request.getMessage());
    if (!ClientManager::instance().verifyRequester(request)) {
        LOG_ERROR("Error: invalid clientId %lu", clientId);
        sendQueryBufferSizeResponse(0, 0, KELM_ERROR_INVALID_CLIENT, std::move(request));
        return;
    }
    // The record lives on without the mutex: only this thread deletes one.
    KelmGraph* graph = getGraphById(graphId);
    if (graph == nullptr) {
        LOG_ERROR("Error: invalid graphId(%lu)", graphId);
        sendQueryBufferSizeResponse(0, 0, KELM_ERROR_INVALID_GRAPH, std::move(request));
        return;
    }
    const uint64_t outputBufferSize = graph->getOutputBufferSize();
    const uint64_t auxBufferSize =
        graph->getTimeTakensSize() + graph->getThermalBufferSize() + graph->getDebugBufferSize();
    sendQueryBufferSizeResponse(outputBufferSize, auxBufferSize, KELM_OK, std::move(request));
    LOG_STEP("[QueryBufferSize#1] clientId=%lu graphId=%lu outputBufferSize=%lu auxBufferSize=%lu",
             clientId, graphId, outputBufferSize, auxBufferSize);
}

void GraphManager::sendCreateGraphResponse(const CreateAnswer& answer, Request request) {
    if (m_stopped.load()) return;
    ResultDispatcher::instance().enqueueSendCreateGraphResponse(answer.graph, answer.error,
                                                                std::move(request));
}

void GraphManager::sendDestroyGraphResponse(KelmError error, Request request) {
    if (m_stopped.load()) return;
    ResultDispatcher::instance().enqueueSendDestroyGraphResponse(error, std::move(request));
}

void GraphManager::sendQueryBufferSizeResponse(uint64_t outputBufferSize, uint64_t auxBufferSize,
                                               KelmError error, Request request) {
    if (m_stopped.load()) return;
    ResultDispatcher::instance().enqueueSendQueryBufferSizeResponse(outputBufferSize, auxBufferSize,
                                                                    error, std::move(request));
}

void GraphManager::destroyGraph(Request request) {
    const uint64_t clientId = request.getClientId();
    LOG_STEP("[DestroyGraph#0] clientId=%lu graphId=%lu socket=%d userParam=%p", clientId,
             request.as<KelmMsgReqDestroyGraph>().graphId, request.getSocket(),
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
        LOG_STEP("[DestroyGraph#1] clientId=%lu graphId=%lu socket=%d userParam=%p", clientId,
                 graphId, request.getSocket(), request.getMessage());
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
    // Without a device manager no confirmation of an unload will come. The notice of the load,
    // which failed for the same reason, is in the queue by now, ahead of the task manager's
    // confirmation.
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
    LOG_STEP("revoke graph privileges assigned for client(id:%lu)", clientId);
    int numCleaned = 0;
    for (auto entry = m_graphs.begin(); entry != m_graphs.end();) {
        KelmGraph* graph = (entry++)->second;  // first: retiring takes the graph out of the map
        graph->removeUser(clientId);
        if (graph->isRunning()) continue;
        retireGraphUnsafe(graph);
        ++numCleaned;
    }
    LOG_STEP("graph clean work done for unregister client(id:%lu), numCleaned=%d", clientId,
             numCleaned);
}

void GraphManager::removeAllGraphs() {
    const auto deadline = std::chrono::steady_clock::now() + kRemoveAllLimit;
    m_stopped.store(true);
    // A creation that has begun queues one turn after the other; its next turn finds m_stopped and
    // is its last. What a thread enqueues after the wait finds that too.
    (void)m_pool.waitIdleFor(kRemoveAllLimit);
    MutexLock lock(m_mutex);
    // A graph that departs already is in m_graphs no more, so no device is told twice.
    while (!m_graphs.empty()) retireGraphUnsafe(m_graphs.begin()->second);
    while (!m_deallocatingGraphs.empty() || !m_failedGraphs.empty()) {
        if (m_goneCond.waitUntil(m_mutex, deadline)) continue;
        LOG_WARN("Warn: %lu graphs are still in use",
                 m_deallocatingGraphs.size() + m_failedGraphs.size());
        break;
    }
}

}  // namespace kelm
