#include <string>
#include <utility>

#include "devices/DeviceManagerCreator.h"
#include "execution/KelmDeviceBase.h"
#include "managers/ClientManager.h"
#include "managers/GraphBlob.h"
#include "managers/GraphManager.h"
#include "managers/TaskManager.h"
#include "protocol/src/KelmProtocol.h"
#include "records/KelmGraph.h"
#include "utils/Log.h"
#include "utils/StepTrace.h"
#include "utils/TextHelper.h"
#include "utils/Tracer.h"

namespace kelm {
namespace {

struct InfoRow {
    KelmGraphInfo what;
    void (KelmGraph::*store)(uint64_t size);
};

constexpr InfoRow kInfoRows[] = {
    {GRAPH_INFO_INPUT, &KelmGraph::setInputBufferSize},
    {GRAPH_INFO_OUTPUT, &KelmGraph::setOutputBufferSize},
    {GRAPH_INFO_TIME_TAKEN, &KelmGraph::setTimeTakensSize},
    {GRAPH_INFO_DEBUG, &KelmGraph::setDebugBufferSize},
    {GRAPH_INFO_THERMAL, &KelmGraph::setThermalBufferSize},
};

// Fills the buffer sizes from the blob's header; false if that cannot be read.
bool getGraphInfo(KelmGraph& graph) {
    for (const InfoRow& row : kInfoRows) {
        size_t size = 0;
        if (KelmDeviceBase::getGraphInfo(graph.getData(), graph.getDataSize(), row.what, size) !=
            0) {
            return false;
        }
        (graph.*row.store)(size);
    }
    return true;
}

}  // namespace

struct GraphManager::Creation {
    const bool isFile;  // else the bytes are in the request
    bool opened = false;
    GraphBlob blob{};
};

void GraphManager::enqueueCreateGraph(Request request) {
    const auto& wanted = request.as<KelmMsgReqCreateGraph>();
    const bool isFile = wanted.graphData == 0;
    const uint64_t blobBytes = isFile ? 0 : wanted.graphDataSize;
    m_turns.enqueue(
        std::move(request), blobBytes,
        [this, creation = std::make_shared<Creation>(Creation{isFile})](Request& owned) {
            m_onPool.assertHeld();
            return continueCreation(owned, creation);
        });
}

bool GraphManager::continueCreation(Request& request, const CreationPtr& creation) {
    std::optional<CreateAnswer> answer;
    if (!createGraph(request, creation, answer)) return false;
    creation->blob = {};  // first: the answer may wait for room in a queue, with megabytes held
    // The graph of the answer lives on without the mutex: only this thread deletes one.
    if (answer) sendCreateGraphResponse(*answer, std::move(request));
    return true;
}

bool GraphManager::createGraph(Request& request, const CreationPtr& creation,
                               std::optional<CreateAnswer>& answer) {
    if (!openBlob(request, *creation)) {
        LOG_ERROR("Error: invalid graphPath '%s'",
                  escapeControls(request.as<KelmMsgReqCreateGraph>().graphPath));
        answer = CreateAnswer{nullptr, KELM_ERROR_GRAPH_DIGEST_FAILED};
        return true;
    }
    // Checked in each turn: a client that departs must not be entered as a user afterwards, and for
    // one that has hung up no more bytes are read.
    if (m_stopped.load() || !ClientManager::instance().verifyRequester(request) ||
        GraphBacklog::hasHungUp(request.getSocket())) {
        LOG_ERROR("Error: invalid clientId %lu", request.getClientId());
        answer = CreateAnswer{nullptr, KELM_ERROR_INVALID_CLIENT};
        return true;
    }
    GraphBlob& blob = creation->blob;
    if (joinKnownFile(request, *creation, answer)) return true;
    if (creation->isFile && !takeReadersPlace(creation)) return false;
    if (!blob.advance()) return false;
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
    const std::optional<FileIdentity>& file = creation.blob.getIdentity();
    const std::string* const hash = file ? m_fileDigests.find(*file) : nullptr;
    if (hash == nullptr) return false;
    MutexLock lock(m_mutex);
    return joinGraphUnsafe(request, *hash, answer);
}

bool GraphManager::joinGraphUnsafe(Request& request, const std::string& hash,
                                   std::optional<CreateAnswer>& answer) {
    const auto& wanted = request.as<KelmMsgReqCreateGraph>();
    // Deliberate: the limit comes first, so that it refuses a share in a loaded graph too.
    if (m_graphNum == m_maxGraphNum) {
        LOG_ERROR("Error: exceed max graph number supported");
        LOG_STEP("[CreateGraph#1] exceed max graph number, send response to client(%lu)",
                 wanted.clientId);
        answer = CreateAnswer{nullptr, KELM_ERROR_TOO_MANY_GRAPH};
        return true;
    }
    if (KelmGraph* loaded = getLoadedGraph(wanted, hash)) {
        LOG_STEP("[CreateGraph#1] found loaded graph(%lu), send response to client(%lu)",
                 loaded->getId(), wanted.clientId);
        loaded->appendName(wanted.clientId, wanted.graphName);
        answer = CreateAnswer{loaded, KELM_OK};
        return true;
    }
    KelmGraph* loading = getLoadingGraph(wanted, hash);
    if (loading == nullptr) return false;
    LOG_STEP("[CreateGraph#1] found loading graph(%lu), add to response list", loading->getId());
    loading->appendName(wanted.clientId, wanted.graphName);
    m_responseLists[loading].push_back(std::move(request));
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
    record->setLoadTraceIndex(traceBegin("load_graph_", id));
    m_dump.write(*record);
    // Deliberate: the trace of a load that never starts stays open, and so is not in the files.
    if (!getGraphInfo(*record)) {
        LOG_ERROR("Error: invalid format of graph(%lu)", id);
        return CreateAnswer{nullptr, KELM_ERROR_INVALID_GRAPH_FORMAT};
    }
    record->setTag(wanted.graphTag);
    record->setStreamId(wanted.streamId);
    record->setInterfaceSubclass(wanted.subclass);

    MutexLock lock(m_mutex);
    if (m_stopped.load()) return CreateAnswer{nullptr, KELM_ERROR_INVALID_CLIENT};
    KelmGraph* graph = record.release();
    m_graphs.emplace(id, graph);
    ++m_graphNum;
    const void* const message = request.getMessage();  // `wanted` is in it, wherever it is owned
    m_responseLists[graph].push_back(std::move(request));
    // Under the mutex, so that no unload request can come before it. It only queues, and without a
    // device manager for the subclass the failure comes as a notice too.
    (void)DeviceManagerCreator::instance().enqueueLoadGraph(graph);
    LOG_STEP("[CreateGraph#1] clientId=%lu graphId=%lu graphName=%s userParam=%p", wanted.clientId,
             id, escapeControls(wanted.graphName), message);
    return std::nullopt;
}

bool GraphManager::isTwin(KelmGraph& graph, const KelmMsgReqCreateGraph& wanted,
                          const std::string& hash) const {
    return graph.getHash() == hash && graph.getTag() == wanted.graphTag &&
           graph.getStreamId() == wanted.streamId &&
           graph.getInterfaceSubclass() == wanted.subclass &&
           (m_graphIdentity != "name" || graph.getName() == wanted.graphName);
}

KelmGraph* GraphManager::getLoadedGraph(const KelmMsgReqCreateGraph& wanted,
                                        const std::string& hash) {
    for (KelmGraph* graph : m_loadedGraphs) {
        if (isTwin(*graph, wanted, hash)) return graph;
    }
    return nullptr;
}

KelmGraph* GraphManager::getLoadingGraph(const KelmMsgReqCreateGraph& wanted,
                                         const std::string& hash) {
    for (const auto& [graph, waiting] : m_responseLists) {
        if (isTwin(*graph, wanted, hash)) return graph;
    }
    return nullptr;
}

void GraphManager::notifyLoadGraphDone(KelmGraph* graph, KelmError error) {
    std::vector<Request> waiting;
    uint64_t trace = 0;
    {
        MutexLock lock(m_mutex);
        const auto entry = m_responseLists.find(graph);
        if (entry == m_responseLists.end()) return;  // it departed while it loaded
        trace = graph->getLoadTraceIndex();
        waiting = std::move(entry->second);
        m_responseLists.erase(entry);
        if (error == KELM_OK) {
            LOG_INFO("Load graph success, graphId=%lu graphName=%s", graph->getId(),
                     escapeControls(graph->getName()));
            m_loadedGraphs.insert(graph);
        } else {
            failLoadUnsafe(graph, error);
        }
    }
    const CreateAnswer answer{error == KELM_OK ? graph : nullptr, error};
    for (Request& request : waiting) sendCreateGraphResponse(answer, std::move(request));
    TraceEndCsv(trace);
}

void GraphManager::failLoadUnsafe(KelmGraph* graph, KelmError error) {
    LOG_ERROR("Error: load graph failed, graphId=%lu graphName=%s error=%d", graph->getId(),
              escapeControls(graph->getName()), error);
    m_graphs.erase(graph->getId());
    --m_graphNum;
    // No client has been told the id, but one can guess it: a task may refer to the record.
    m_failedGraphs.insert(graph);
    TaskManager::instance().enqueueNotifyGraphInDestroy(graph);
    m_goneCond.notifyAll();
}

}  // namespace kelm
