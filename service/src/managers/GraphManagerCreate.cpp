#include <chrono>
#include <climits>
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
#include "utils/FileHelper.h"
#include "utils/Log.h"
#include "utils/StringHelper.h"
#include "utils/TextHelper.h"
#include "utils/ThreadUtils.h"
#include "utils/TimeHelper.h"
#include "utils/Tracer.h"
#include "utils/Utf8.h"

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

// What of a client's text may be part of a file name: no other directory, no hidden file.
std::string makeDumpStem(const std::string& graphName, size_t room) {
    std::string stem = FileHelper::getFileNameStem(graphName);
    std::erase(stem, '/');
    stem.erase(0, stem.find_first_not_of('.'));
    return std::string(Utf8::head(stem, room));
}

std::string makeDumpFileName(KelmGraph& graph) {
    static std::atomic<uint64_t> dumpCounter{0};
    constexpr size_t kHashTail = 6;
    const std::string& hash = graph.getHash();
    const std::string ending = "_" + putTime(std::chrono::system_clock::now(), "%Y%m%d_%H%M%S") +
                               "_" + std::to_string(ThreadUtils::getThreadId()) + "_" +
                               std::to_string(dumpCounter.fetch_add(1)) + "_sha256_" +
                               hash.substr(hash.size() < kHashTail ? 0 : hash.size() - kHashTail) +
                               ".graph";
    return makeDumpStem(graph.getName(), NAME_MAX - ending.size()) + ending;
}

}  // namespace

struct GraphManager::CreateRequest {
    uint64_t clientId;
    const char* graphName;
    const char* tag;
    const char* streamId;
    int32_t subclass;
    int32_t expectDevices;
    Response response;
};

struct GraphManager::Creation {
    const CreateRequest request;
    const char* const path;   // null for a graph that came as a buffer
    const uint64_t data = 0;  // where its bytes are in the request
    const uint64_t dataSize = 0;
    bool opened = false;
    GraphBlob blob{};
};

void GraphManager::enqueueCreateGraph(uint64_t clientId, const char* graphPath,
                                      const char* graphName, const char* tag, const char* streamId,
                                      int32_t subclass, int32_t expectDevices, int socket,
                                      void* userParam) {
    const CreateRequest request{clientId,      graphName,          tag, streamId, subclass,
                                expectDevices, {socket, userParam}};
    enqueueCreation(std::make_shared<Creation>(Creation{request, graphPath}));
}

void GraphManager::enqueueCreateGraph(uint64_t clientId, const char* graphData,
                                      uint64_t graphDataSize, const char* graphName,
                                      const char* tag, const char* streamId, int32_t subclass,
                                      int32_t expectDevices, int socket, void* userParam) {
    const CreateRequest request{clientId,      graphName,          tag, streamId, subclass,
                                expectDevices, {socket, userParam}};
    const auto data = reinterpret_cast<uint64_t>(graphData);
    enqueueCreation(std::make_shared<Creation>(Creation{request, nullptr, data, graphDataSize}));
}

void GraphManager::enqueueCreation(const CreationPtr& creation) {
    m_turns.enqueue(creation->request.response.socket, creation->dataSize, [this, creation] {
        m_onPool.assertHeld();
        return continueCreation(creation);
    });
}

bool GraphManager::continueCreation(const CreationPtr& creation) {
    std::optional<CreateAnswer> answer;
    if (!createGraph(creation, answer)) return false;
    creation->blob = {};  // an answer may wait for room
    // The graph of the answer lives on without the mutex: only this thread deletes one.
    if (answer) sendCreateGraphResponse(*answer, creation->request.response);
    return true;
}

bool GraphManager::createGraph(const CreationPtr& creation, std::optional<CreateAnswer>& answer) {
    const CreateRequest& request = creation->request;
    if (!openBlob(*creation)) {
        LOG_ERROR("Error: invalid graphPath '%s'", escapeControls(creation->path));
        answer = CreateAnswer{nullptr, KELM_ERROR_GRAPH_DIGEST_FAILED};
        return true;
    }
    // Looked at in each turn: who leaves must not be entered as a user afterwards, and who has hung
    // up wants no more bytes to be read.
    if (m_stopped.load() ||
        !ClientManager::instance().verifyRequester(request.clientId, request.response.userParam) ||
        GraphBacklog::hasHungUp(request.response.socket)) {
        LOG_ERROR("Error: invalid clientId %lu", request.clientId);
        answer = CreateAnswer{nullptr, KELM_ERROR_INVALID_CLIENT};
        return true;
    }
    GraphBlob& blob = creation->blob;
    if (joinKnownFile(*creation, answer)) return true;
    if (creation->path != nullptr && !takeReadersPlace(creation)) return false;
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

bool GraphManager::openBlob(Creation& creation) {
    if (std::exchange(creation.opened, true)) return true;
    const CreateRequest& request = creation.request;
    if (creation.path != nullptr && !GraphBlob::isGraphFile(creation.path)) return false;
    LOG_PROC(m_debugProcess, "[CreateGraph#0] clientId=%lu graphName=%s socket=%d userParam=%p",
             request.clientId, escapeControls(request.graphName), request.response.socket,
             request.response.userParam);
    auto* const message = static_cast<KelmMsgBase*>(request.response.userParam);
    if (creation.path != nullptr) {
        creation.blob = GraphBlob::fromFile(creation.path, *kelmGetPeer(*message));
    } else {
        creation.blob =
            GraphBlob::fromBuffer(kelmTakeBlock(message, creation.data), creation.dataSize);
    }
    return true;
}

bool GraphManager::takeReadersPlace(const CreationPtr& creation) {
    const CreationPtr reader = m_reader.lock();
    if (!reader) m_reader = creation;
    return !reader || reader == creation;
}

// Deliberate: what is known of a file only finds its twins. The record of a graph is made of bytes
// that were digested themselves, since a mapped file can change without a mark.
bool GraphManager::joinKnownFile(const Creation& creation, std::optional<CreateAnswer>& answer) {
    const std::optional<FileIdentity>& file = creation.blob.getIdentity();
    const std::string* const hash = file ? m_fileDigests.find(*file) : nullptr;
    if (hash == nullptr) return false;
    MutexLock lock(m_mutex);
    return joinGraphUnsafe(creation.request, *hash, answer);
}

bool GraphManager::joinGraphUnsafe(const CreateRequest& request, const std::string& hash,
                                   std::optional<CreateAnswer>& answer) {
    // Deliberate: the limit comes first, so that it refuses a share in a loaded graph too.
    if (m_graphNum == m_maxGraphNum) {
        LOG_ERROR("Error: exceed max graph number supported");
        LOG_PROC(m_debugProcess,
                 "[CreateGraph#1] exceed max graph number, send response to client(%lu)",
                 request.clientId);
        answer = CreateAnswer{nullptr, KELM_ERROR_TOO_MANY_GRAPH};
        return true;
    }
    if (KelmGraph* loaded = getLoadedGraph(request, hash)) {
        LOG_PROC(m_debugProcess,
                 "[CreateGraph#1] found loaded graph(%lu), send response to client(%lu)",
                 loaded->getId(), request.clientId);
        loaded->appendName(request.clientId, request.graphName);
        answer = CreateAnswer{loaded, KELM_OK};
        return true;
    }
    KelmGraph* loading = getLoadingGraph(request, hash);
    if (loading == nullptr) return false;
    LOG_PROC(m_debugProcess, "[CreateGraph#1] found loading graph(%lu), add to response list",
             loading->getId());
    loading->appendName(request.clientId, request.graphName);
    m_responseLists[loading].push_back(request.response);
    return true;
}

// The record is made without the mutex, for which every new task waits: a blob can be large, and a
// dump slow. Twins and the limit stay as they were found, since only this thread enters graphs.
std::optional<GraphManager::CreateAnswer> GraphManager::loadNewGraph(const CreateRequest& request,
                                                                     GraphBlob& blob) {
    const uint64_t id = m_nextGraphId.fetch_add(1);
    std::unique_ptr<KelmGraph> record =
        blob.makeGraph(id, request.clientId, request.graphName, request.expectDevices);
    record->setLoadTraceIndex(traceBegin("load_graph_", id));
    dumpGraph(*record);
    // Deliberate: the trace of a load that never starts stays open, and so is not in the files.
    if (!getGraphInfo(*record)) {
        LOG_ERROR("Error: invalid format of graph(%lu)", id);
        return CreateAnswer{nullptr, KELM_ERROR_INVALID_GRAPH_FORMAT};
    }
    record->setTag(request.tag);
    record->setStreamId(request.streamId);
    record->setInterfaceSubclass(request.subclass);

    MutexLock lock(m_mutex);
    if (m_stopped.load()) return CreateAnswer{nullptr, KELM_ERROR_INVALID_CLIENT};
    KelmGraph* graph = record.release();
    m_graphs.emplace(id, graph);
    ++m_graphNum;
    m_responseLists[graph].push_back(request.response);
    // Under the mutex, so that no unload request can come before it. It only queues, and without a
    // device manager for the subclass the failure comes as a notice too.
    (void)DeviceManagerCreator::instance().enqueueLoadGraph(graph);
    LOG_PROC(m_debugProcess, "[CreateGraph#1] clientId=%lu graphId=%lu graphName=%s userParam=%p",
             request.clientId, id, escapeControls(request.graphName), request.response.userParam);
    return std::nullopt;
}

bool GraphManager::isTwin(KelmGraph& graph, const CreateRequest& request,
                          const std::string& hash) const {
    return graph.getHash() == hash && graph.getTag() == request.tag &&
           graph.getStreamId() == request.streamId &&
           graph.getInterfaceSubclass() == request.subclass &&
           (m_graphIdentity != "name" || graph.getName() == request.graphName);
}

KelmGraph* GraphManager::getLoadedGraph(const CreateRequest& request, const std::string& hash) {
    for (KelmGraph* graph : m_loadedGraphs) {
        if (isTwin(*graph, request, hash)) return graph;
    }
    return nullptr;
}

KelmGraph* GraphManager::getLoadingGraph(const CreateRequest& request, const std::string& hash) {
    for (const auto& [graph, responses] : m_responseLists) {
        if (isTwin(*graph, request, hash)) return graph;
    }
    return nullptr;
}

void GraphManager::dumpGraph(KelmGraph& graph) {
    if (!m_dumpGraph) return;
    const std::string file = FileHelper::joinPath(m_dumpPath, makeDumpFileName(graph));
    if (graph.dumpToFile(file)) {
        LOG_INFO("graph [%s] has been dumped to local file '%s'", escapeControls(graph.getName()),
                 escapeControls(file));
    } else {
        LOG_ERROR("Error: dump graph [%s] to local file '%s' failed",
                  escapeControls(graph.getName()), escapeControls(file));
    }
}

void GraphManager::notifyLoadGraphDone(KelmGraph* graph, KelmError error) {
    std::vector<Response> waiting;
    uint64_t trace = 0;
    {
        MutexLock lock(m_mutex);
        const auto entry = m_responseLists.find(graph);
        if (entry == m_responseLists.end()) return;  // destroyed while it loaded
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
    for (const Response& response : waiting) sendCreateGraphResponse(answer, response);
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
