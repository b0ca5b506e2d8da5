#include "managers/GraphManager.h"

#include <chrono>
#include <new>
#include <utility>

#include "config/ServiceConfigParser.h"
#include "devices/DeviceManagerCreator.h"
#include "managers/BufferSizes.h"
#include "managers/ClientManager.h"
#include "managers/GraphReport.h"
#include "managers/ResultDispatcher.h"
#include "managers/TaskManager.h"
#include "protocol/src/KelmProtocol.h"
#include "records/KelmGraph.h"
#include "reporting/InfoCollector.h"
#include "reporting/ReportPart.h"
#include "utils/IPC.h"
#include "utils/Log.h"
#include "utils/Port.h"
#include "utils/StepTrace.h"
#include "utils/TextHelper.h"
#include "utils/Tracer.h"

namespace kelm {

namespace {

// How long the stopping service waits for devices to unload the graphs and for their tasks to end.
constexpr std::chrono::seconds kRemoveAllLimit{3};

uint64_t readGraphLimit() {
    const int limit = ServiceConfigParser::instance().getMaxGraphNumber();
    return limit > 0 ? static_cast<uint64_t>(limit) : INT32_MAX;
}

}  // namespace

struct GraphManager::Creation {
    const bool isFile;  // else the bytes are in the request
    bool opened = false;
    GraphBlob blob{};
};

GraphManager::GraphManager()
    : m_printFps(ServiceConfigParser::instance().isPrintGraphFpsEnabled()),
      m_trace(ServiceConfigParser::instance().isGraphManagerDebugProcessEnabled()),
      m_snapshotBase(ServiceConfigParser::instance().getGraphSnapshotMode() == "base"),
      m_graphs(readGraphLimit(), ServiceConfigParser::instance().getGraphIdentity() == "name"),
      m_turns(m_pool),
      m_pool("GraphMgr", 100) {
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
    for (KelmGraph* graph : m_graphs.getAll(GraphRegistry::LOADED)) {
        LOG_ERROR("[~GraphManager()][Graph: %s] delete graph(%p)", escapeControls(graph->getName()),
                  graph);
    }
    for (KelmGraph* graph : m_graphs.getAll(GraphRegistry::LOADING)) {
        TraceEndCsv(graph->getLoadTraceIndex());
    }
    // Jobs that the pool still runs find no graph here, and so call no manager that is destroyed.
    m_graphs.close();
    LOG_STEP("graph manager destructed");
}

void GraphManager::enqueueCreateGraph(Request request) {
    const auto& wanted = request.as<KelmMsgReqCreateGraph>();
    // Bytes without an address have come, and found no memory.
    const bool isFile = wanted.graphData == 0 && wanted.graphDataSize == 0;
    const uint64_t blobBytes = wanted.graphData == 0 ? 0 : wanted.graphDataSize;
    m_turns.enqueue(
        std::move(request), blobBytes,
        [this, creation = std::make_shared<Creation>(Creation{isFile})](Request& owned) {
            m_onPool.assertHeld();
            return continueCreation(owned, creation);
        });
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

// The notices are not held back by a full queue: a device thread would stand still for a client's
// requests.
void GraphManager::enqueueNotifyLoadGraphDone(KelmGraph* graph, KelmError error) {
    m_pool.postNotice([this, graph, error] { notifyLoadGraphDone(graph, error); });
}

void GraphManager::enqueueNotifyUnloadGraphDone(KelmGraph* graph) {
    m_pool.postNotice([this, graph] { confirmDeparture(graph, GraphRegistry::UNLOADED); });
}

void GraphManager::enqueueNotifyAllTasksDone(KelmGraph* graph) {
    m_pool.postNotice([this, graph] { notifyAllTasksDone(graph); });
}

void GraphManager::enqueueNotifyClientInDestroy(uint64_t clientId) {
    m_pool.postNotice([this, clientId] { notifyClientInDestroy(clientId); });
}

KelmGraph* GraphManager::getGraphById(uint64_t graphId) {
    MutexLock lock(m_mutex);
    return m_graphs.find(graphId);
}

bool GraphManager::continueCreation(Request& request, const CreationPtr& creation) {
    const uint64_t clientId = request.getClientId();
    std::optional<CreateAnswer> answer;
    try {
        if (!createGraph(request, creation, answer)) return false;
    } catch (const std::bad_alloc&) {
        LOG_ERROR("Error: no memory for a graph of client(%lu)", clientId);
        // Queued by then, it is answered with the others that wait.
        if (request) answer = CreateAnswer{nullptr, KELM_ERROR_OUT_OF_MEMORY};
    }
    creation->blob = {};  // first: the answer may wait for room in a queue, with megabytes held
    // The graph of the answer lives on without the mutex: only this thread deletes one.
    if (answer) sendCreateGraphResponse(*answer, std::move(request));
    return true;
}

// A request can name a client of another connection, with whose end it does not depart: it would
// keep the number of its own connection for as long as the load takes.
void GraphManager::dropRequestsOfEndedConnections() {
    GraphRegistry::Requests dropped;  // outlives the lock
    MutexLock lock(m_mutex);
    dropped = m_graphs.takeWaiting([](const Request& request) {
        const auto connection = IPC::ConnectionBase::findConnection(request.getSocket());
        return !connection || !connection->connected();
    });
}

bool GraphManager::createGraph(Request& request, const CreationPtr& creation,
                               std::optional<CreateAnswer>& answer) {
    if (!creation->opened) dropRequestsOfEndedConnections();
    if (!openBlob(request, *creation)) {
        LOG_ERROR("Error: invalid graphPath '%s'",
                  escapeControls(request.as<KelmMsgReqCreateGraph>().graphPath));
        answer = CreateAnswer{nullptr, KELM_ERROR_GRAPH_DIGEST_FAILED};
        return true;
    }
    // Checked in each turn: a client that departs must not be entered as a user afterwards, and for
    // one that has hung up no more bytes are read.
    if (m_stopped.load() || !ClientManager::instance().verifyRequester(request) ||
        GraphTurns::hasHungUp(request.getSocket())) {
        LOG_ERROR("Error: invalid clientId %lu", request.getClientId());
        answer = CreateAnswer{nullptr, KELM_ERROR_INVALID_CLIENT};
        return true;
    }
    GraphBlob& blob = creation->blob;
    if (joinKnownFile(request, *creation, answer)) return true;
    if (creation->isFile && !takeReadersPlace(creation)) return false;
    if (!blob.advance()) return false;
    if (blob.lacksMemory()) throw std::bad_alloc();
    if (blob.getHash().empty()) {
        LOG_ERROR("Error: no valid sha256 value");
        answer = CreateAnswer{nullptr, KELM_ERROR_GRAPH_DIGEST_FAILED};
        return true;
    }
    if (blob.isIdentityProven()) m_fileDigests.remember(*blob.getIdentity(), blob.getHash());
    bool joined = false;
    {
        MutexLock lock(m_mutex);
        joined = joinGraphUnsafe(request, blob.getHash(), answer);
    }
    if (!joined) answer = loadNewGraph(request, blob);
    return true;
}

bool GraphManager::openBlob(const Request& request, Creation& creation) {
    if (std::exchange(creation.opened, true)) return true;
    const auto& wanted = request.as<KelmMsgReqCreateGraph>();
    if (creation.isFile && !GraphBlob::isGraphFile(wanted.graphPath)) return false;
    LOG_STEP("[CreateGraph#0] clientId=%lu graphName=%s socket=%d userParam=%p", wanted.clientId,
             escapeControls(wanted.graphName), request.getSocket(), request.getMessage());
    creation.blob =
        creation.isFile
            ? GraphBlob::fromFile(wanted.graphPath, *kelmGetPeer(*request.getMessage()))
            : GraphBlob::fromBuffer(kelmTakeBlock(request.getMessage(), wanted.graphData),
                                    wanted.graphDataSize);
    return true;
}

bool GraphManager::takeReadersPlace(const CreationPtr& creation) {
    const CreationPtr reader = m_reader.lock();
    if (!reader) m_reader = creation;
    return !reader || reader == creation;
}

// Deliberate: the remembered digest of a file only finds its twins. A new record is made of bytes
// that were digested themselves, since a mapped file can change without a mark.
bool GraphManager::joinKnownFile(Request& request, const Creation& creation,
                                 std::optional<CreateAnswer>& answer) {
    const std::optional<GraphBlob::FileIdentity>& file = creation.blob.getIdentity();
    const std::string* const hash = file ? m_fileDigests.find(*file) : nullptr;
    if (hash == nullptr) return false;
    MutexLock lock(m_mutex);
    return joinGraphUnsafe(request, *hash, answer);
}

bool GraphManager::joinGraphUnsafe(Request& request, const std::string& hash,
                                   std::optional<CreateAnswer>& answer) {
    const auto& wanted = request.as<KelmMsgReqCreateGraph>();
    // Deliberate: the limit comes first, so that it refuses a share in a loaded graph too.
    if (m_graphs.isFull()) {
        LOG_ERROR("Error: exceed max graph number supported");
        LOG_STEP("[CreateGraph#1] exceed max graph number, send response to client(%lu)",
                 wanted.clientId);
        answer = CreateAnswer{nullptr, KELM_ERROR_TOO_MANY_GRAPH};
        return true;
    }
    if (KelmGraph* loaded = m_graphs.findTwin(GraphRegistry::LOADED, wanted, hash)) {
        LOG_STEP("[CreateGraph#1] found loaded graph(%lu), send response to client(%lu)",
                 loaded->getId(), wanted.clientId);
        loaded->appendName(wanted.clientId, wanted.graphName);
        answer = CreateAnswer{loaded, KELM_OK};
        return true;
    }
    KelmGraph* loading = m_graphs.findTwin(GraphRegistry::LOADING, wanted, hash);
    if (loading == nullptr) return false;
    LOG_STEP("[CreateGraph#1] found loading graph(%lu), add to response list", loading->getId());
    if (!m_graphs.mayWait(loading, request.getSocket())) {
        LOG_ERROR("Error: too many requests of client(%lu) wait for graph(%lu)", wanted.clientId,
                  loading->getId());
        answer = CreateAnswer{nullptr, KELM_ERROR_TOO_MANY_GRAPH};
        return true;
    }
    // The client is a user from now on, so the graph is not given up while it waits.
    loading->appendName(wanted.clientId, wanted.graphName);
    m_graphs.addWaiting(loading, std::move(request));
    return true;
}

// The record is made without the mutex, for which every new task waits: a blob can be large, and a
// dump slow. What joinGraphUnsafe() has found still holds, since only this thread enters graphs.
std::optional<GraphManager::CreateAnswer> GraphManager::loadNewGraph(Request& request,
                                                                     GraphBlob& blob) {
    const auto& wanted = request.as<KelmMsgReqCreateGraph>();
    const uint64_t id = m_nextGraphId.fetch_add(1);
    std::unique_ptr<KelmGraph> record =
        blob.makeGraph(id, wanted.clientId, wanted.graphName, wanted.expectDevices);
    traceName("graph,", id, ",", escapeControls(wanted.graphName));
    record->setLoadTraceIndex(traceBegin("load_graph_", id));
    m_dump.write(*record);
    // Deliberate: the trace of a load that never starts stays open, and so is not in the files.
    if (!fillBufferSizes(*record)) {
        LOG_ERROR("Error: invalid format of graph(%lu)", id);
        return CreateAnswer{nullptr, KELM_ERROR_INVALID_GRAPH_FORMAT};
    }
    record->setTag(wanted.graphTag);
    record->setStreamId(wanted.streamId);
    record->setInterfaceSubclass(wanted.subclass);

    MutexLock lock(m_mutex);
    if (m_stopped.load()) return CreateAnswer{nullptr, KELM_ERROR_INVALID_CLIENT};
    KelmGraph* const graph = m_graphs.enter(std::move(record));
    const void* const message = request.getMessage();  // `wanted` is in it, wherever it is owned
    m_graphs.addWaiting(graph, std::move(request));
    // Under the mutex, so that no unload request can come before it. It only queues, and without a
    // device manager for the subclass the failure comes as a notice too.
    (void)DeviceManagerCreator::instance().enqueueLoadGraph(graph);
    LOG_STEP("[CreateGraph#1] clientId=%lu graphId=%lu graphName=%s userParam=%p", wanted.clientId,
             id, escapeControls(wanted.graphName), message);
    return std::nullopt;
}

void GraphManager::notifyLoadGraphDone(KelmGraph* graph, KelmError error) {
    GraphRegistry::Requests waiting;
    uint64_t trace = 0;
    {
        MutexLock lock(m_mutex);
        if (!m_graphs.isLoading(graph)) return;  // it departed while it loaded
        trace = graph->getLoadTraceIndex();
        waiting = m_graphs.endLoad(graph, error != KELM_OK);
        if (error == KELM_OK) {
            LOG_INFO("Load graph success, graphId=%lu graphName=%s", graph->getId(),
                     escapeControls(graph->getName()));
        } else {
            LOG_ERROR("Error: load graph failed, graphId=%lu graphName=%s error=%d", graph->getId(),
                      escapeControls(graph->getName()), error);
            TaskManager::instance().enqueueNotifyGraphInDestroy(graph);
            m_recordCond.notifyAll();
        }
    }
    const CreateAnswer answer{error == KELM_OK ? graph : nullptr, error};
    for (Request& request : waiting) sendCreateGraphResponse(answer, std::move(request));
    TraceEndCsv(trace);
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
    GraphRegistry::Requests unanswered;
    {
        MutexLock lock(m_mutex);
        error = giveUpGraphUnsafe(request, trace, unanswered);
    }
    sendDestroyGraphResponse(error, std::move(request));
    if (error == KELM_OK) TraceEndCsv(trace);
}

KelmError GraphManager::giveUpGraphUnsafe(const Request& request, uint64_t& trace,
                                          GraphRegistry::Requests& unanswered) {
    const uint64_t clientId = request.getClientId();
    const uint64_t graphId = request.as<KelmMsgReqDestroyGraph>().graphId;
    KelmGraph* const graph = m_graphs.find(graphId);
    if (graph == nullptr) {
        LOG_ERROR("Error: invalid graphId(%lu)", graphId);
        return KELM_ERROR_INVALID_GRAPH;
    }
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
        unanswered = retireGraphUnsafe(graph);
        LOG_STEP("[DestroyGraph#1] clientId=%lu graphId=%lu socket=%d userParam=%p", clientId,
                 graphId, request.getSocket(), request.getMessage());
    }
    return KELM_OK;
}

// Deliberate: requests that wait for the load of a graph that is given up get no answer.
GraphRegistry::Requests GraphManager::retireGraphUnsafe(KelmGraph* graph) {
    // The notice of the load's end will find the graph not loading.
    if (m_graphs.isLoading(graph)) TraceEndCsv(graph->getLoadTraceIndex());
    GraphRegistry::Requests unanswered = m_graphs.depart(graph);
    if (!DeviceManagerCreator::instance().enqueueUnloadGraph(graph)) {
        // Without a device manager no confirmation of an unload will come. The notice of the load,
        // which failed for the same reason, is in the queue by now, ahead of the task manager's
        // confirmation.
        (void)m_graphs.confirm(graph, GraphRegistry::UNLOADED);
    }
    TaskManager::instance().enqueueNotifyGraphInDestroy(graph);
    return unanswered;
}

void GraphManager::confirmDeparture(KelmGraph* graph, GraphRegistry::Confirmation confirmation) {
    std::unique_ptr<KelmGraph> record;
    {
        MutexLock lock(m_mutex);
        record = m_graphs.confirm(graph, confirmation);
        if (record) m_recordCond.notifyAll();
    }
    if (record) LOG_INFO("graph(%lu) destroyed", record->getId());
}

void GraphManager::notifyAllTasksDone(KelmGraph* graph) {
    std::unique_ptr<KelmGraph> failed;
    {
        MutexLock lock(m_mutex);
        failed = m_graphs.takeFailed(graph);
        if (failed) m_recordCond.notifyAll();
    }
    if (!failed) confirmDeparture(graph, GraphRegistry::ALL_TASKS_DONE);
}

void GraphManager::notifyClientInDestroy(uint64_t clientId) {
    std::vector<GraphRegistry::Requests> unanswered;  // outlives the lock
    MutexLock lock(m_mutex);
    LOG_STEP("revoke graph privileges assigned for client(id:%lu)", clientId);
    unanswered.push_back(m_graphs.takeWaiting(
        [clientId](const Request& request) { return request.getClientId() == clientId; }));
    int numCleaned = 0;
    for (KelmGraph* graph : m_graphs.getNamed()) {
        graph->removeUser(clientId);
        if (graph->isRunning()) continue;
        unanswered.push_back(retireGraphUnsafe(graph));
        ++numCleaned;
    }
    LOG_STEP("graph clean work done for unregister client(id:%lu), numCleaned=%d", clientId,
             numCleaned);
}

void GraphManager::removeAllGraphs() {
    const auto deadline = std::chrono::steady_clock::now() + kRemoveAllLimit;
    // First: what runs from here on finds it, and enters no graph behind the loop below.
    m_stopped.store(true);
    // A creation that has begun queues one turn after the other; its next turn finds m_stopped and
    // is its last. What a thread enqueues after the wait finds that too.
    (void)m_pool.waitIdleFor(kRemoveAllLimit);
    std::vector<GraphRegistry::Requests> unanswered;
    MutexLock lock(m_mutex);
    // A graph that departs already has no name any more, so no device is told twice.
    for (KelmGraph* graph : m_graphs.getNamed()) unanswered.push_back(retireGraphUnsafe(graph));
    while (!m_graphs.isEmpty()) {
        if (m_recordCond.waitUntil(m_mutex, deadline)) continue;
        LOG_WARN("Warn: %lu graphs are still in use", m_graphs.size());
        break;
    }
}

void GraphManager::onPrintInfo() {
    MutexLock lock(m_mutex);
    const std::vector<KelmGraph*> loaded = m_graphs.getAll(GraphRegistry::LOADED);
    if (m_printFps) printGraphFps(loaded);
    if (m_snapshotBase) printGraphSnapshot(loaded);
}

void GraphManager::enqueueQueryGraphStatus(const std::shared_ptr<KelmStatus>& status) {
    m_pool.post([this, status] {
        reportStatusPart(status, "GraphManager", [this](KelmStatus& record) {
            MutexLock lock(m_mutex);
            fillGraphStatus(m_graphs.getAll(GraphRegistry::LOADED), record);
        });
    });
}

// A notice: the collecting thread waits for this part, so a full queue must not delay it.
void GraphManager::enqueueUpdateInfoPackage(InfoPackage* package) {
    m_pool.postNotice([this, package] {
        reportPackagePart("GraphManager", [this, package] {
            MutexLock lock(m_mutex);
            fillGraphRows(m_graphs.getAll(GraphRegistry::LOADED), *package);
        });
    });
}

}  // namespace kelm
