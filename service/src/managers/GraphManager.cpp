#include "managers/GraphManager.h"

#include "config/ServiceConfigParser.h"
#include "managers/ClientManager.h"
#include "managers/ResultDispatcher.h"
#include "managers/TaskManager.h"
#include "records/KelmGraph.h"
#include "reporting/InfoCollector.h"
#include "utils/CommonHelper.h"
#include "utils/FileHelper.h"
#include "utils/Log.h"
#include "utils/Port.h"
#include "utils/TextHelper.h"

namespace kelm {
namespace {

std::string settleDumpPath() {
    std::string configured = ServiceConfigParser::instance().getGraphDumpPath();
    if (!configured.empty()) {
        if (FileHelper::isDirectory(configured)) return configured;
        LOG_WARN("Warn: Invalid graph dump path: there is no directory '%s'", configured);
    }
    return FileHelper::joinPath(CommonHelper::getKelmInstallDir(), "bin", "dump_graph");
}

}  // namespace

GraphManager::GraphManager()
    : m_printFps(ServiceConfigParser::instance().isPrintGraphFpsEnabled()),
      m_dumpGraph(ServiceConfigParser::instance().isDumpGraphEnabled()),
      m_debugProcess(ServiceConfigParser::instance().isGraphManagerDebugProcessEnabled()),
      m_snapshotBase(ServiceConfigParser::instance().getGraphSnapshotMode() == "base"),
      m_dumpPath(settleDumpPath()),
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
    LOG_PROC(m_debugProcess, "to destruct graph manager");
    Port<InfoCollector>::notify<&InfoCollector::unregisterListener>(this);
    m_stopped.store(true);
    MutexLock lock(m_mutex);
    // What is still going away stays: a device that has not let go of it may still read it.
    for (KelmGraph* graph : m_loadedGraphs) {
        LOG_ERROR("[~GraphManager()][Graph: %s] delete graph(%p)", escapeControls(graph->getName()),
                  graph);
        delete graph;
    }
    // What the pool still runs finds nothing here and calls no manager that has gone before.
    m_loadedGraphs.clear();
    while (!m_responseLists.empty()) releaseWaitingUnsafe(m_responseLists.begin()->first);
    m_graphs.clear();
    LOG_PROC(m_debugProcess, "graph manager destructed");
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
    LOG_PROC(m_debugProcess, "[QueryBufferSize#0] clientId=%lu graphId=%lu socket=%d userParam=%p",
             clientId, graphId, request.getSocket(), request.getMessage());
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
    LOG_PROC(m_debugProcess,
             "[QueryBufferSize#1] clientId=%lu graphId=%lu outputBufferSize=%lu auxBufferSize=%lu",
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

}  // namespace kelm
