#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "managers/GraphBlob.h"
#include "managers/GraphDump.h"
#include "managers/GraphRegistry.h"
#include "managers/GraphTurns.h"
#include "protocol/src/KelmError.h"
#include "records/Request.h"
#include "reporting/PrintInfoListener.h"
#include "scheduling/devices/GraphPlacementListener.h"
#include "utils/Mutex.h"
#include "utils/SerialPool.h"
#include "utils/Singleton.h"
#include "utils/StepTrace.h"
#include "utils/ThreadRole.h"

namespace kelm {

class KelmGraph;
struct InfoPackage;
struct KelmStatus;

// Owns every graph record. Merges identical graphs, so that one blob is loaded once however many
// clients ask for it, and deletes a record only when its tasks have ended and no device holds it.
//
// Notices name a graph by its pointer, which is safe: the last notice of the device side is that of
// a failed first load or the answer to the one unload request, the last notice of the task side the
// answer to the one notice of the departure. A record is deleted only when both were handled here,
// on the pool's one thread in order of arrival, so no notice in the queue names a deleted graph.
//
// The texts of a request live as long as it does; a blob is taken out of it when its turn comes and
// freed as soon as it is in a record, or not needed.
//
// Requests of one connection are handled in order. A create request takes a turn of the thread for
// every few megabytes, so that a large blob delays no other request, and one file is read at a
// time.
//
// Threads: handlers run on the pool's one thread; getGraphById() on any, onPrintInfo() on the
// printer's, removeAllGraphs() on the stopping one.
// Owns: the records. Locks: m_mutex, then a graph's, the client manager's, a pool's. No call that
// can block is made under m_mutex.
class GraphManager : public Singleton<GraphManager>,
                     public PrintInfoListener,
                     public GraphPlacementListener {
 public:
    GraphManager();
    ~GraphManager() override;

    // By path, or by buffer if it has one; answered with the graph, or without one and an error.
    void enqueueCreateGraph(Request request);
    void enqueueDestroyGraph(Request request);
    void enqueueQueryBufferSize(Request request);

    void enqueueNotifyLoadGraphDone(KelmGraph* graph, KelmError error) override;
    void enqueueNotifyUnloadGraphDone(KelmGraph* graph) override;
    // No task of the graph is left, and none will come.
    void enqueueNotifyAllTasksDone(KelmGraph* graph);
    // The client departs: its shares in graphs end.
    void enqueueNotifyClientInDestroy(uint64_t clientId);

    // Null for a graph that is unknown or departs. On the task manager's main thread the record
    // lives at least until the handler that asks has ended: the notice of its departure queues
    // behind that.
    KelmGraph* getGraphById(uint64_t graphId) EXCLUDES(m_mutex);

    // The service stops, and its clients have departed: lets every graph depart and waits, for a
    // bounded time, until the last record is deleted. Nothing is answered any more afterwards.
    void removeAllGraphs() EXCLUDES(m_mutex);

    // Name and rates of every loaded graph; then reports its part.
    void enqueueQueryGraphStatus(const std::shared_ptr<KelmStatus>& status);
    // The same for the package, which lives until the report. Never blocks.
    void enqueueUpdateInfoPackage(InfoPackage* package);

    void onPrintInfo() override EXCLUDES(m_mutex);

 private:
    struct Creation;  // how far a create request has come
    using CreationPtr = std::shared_ptr<Creation>;
    struct CreateAnswer {
        KelmGraph* graph;
        KelmError error;
    };
    // One turn; true when the request is answered, or will be with the outcome of a load.
    bool continueCreation(Request& request, const CreationPtr& creation) REQUIRES(m_onPool)
        EXCLUDES(m_mutex);
    // The same, with the answer if it has one now.
    bool createGraph(Request& request, const CreationPtr& creation,
                     std::optional<CreateAnswer>& answer) REQUIRES(m_onPool) EXCLUDES(m_mutex);
    void dropRequestsOfEndedConnections() EXCLUDES(m_mutex);
    // Finds the blob, of which nothing is read yet. False if the path names no graph.
    bool openBlob(const Request& request, Creation& creation);
    // Takes the one place of a creation that reads a file; false while another creation has it.
    bool takeReadersPlace(const CreationPtr& creation) REQUIRES(m_onPool);
    // True if the file is known by its state and was joined or refused.
    bool joinKnownFile(Request& request, const Creation& creation,
                       std::optional<CreateAnswer>& answer) REQUIRES(m_onPool) EXCLUDES(m_mutex);
    // False if the graph is a new one. Else the answer, or none when it comes with the outcome of a
    // load, which the request then waits for.
    bool joinGraphUnsafe(Request& request, const std::string& hash,
                         std::optional<CreateAnswer>& answer) REQUIRES(m_mutex);
    // The answer of a refusal, or nothing when the request waits for the outcome of the load.
    std::optional<CreateAnswer> loadNewGraph(Request& request, GraphBlob& blob) EXCLUDES(m_mutex);
    void notifyLoadGraphDone(KelmGraph* graph, KelmError error) EXCLUDES(m_mutex);

    void destroyGraph(Request request) EXCLUDES(m_mutex);
    // On success `trace` is the open trace of the graph's end. `unanswered`: see below.
    KelmError giveUpGraphUnsafe(const Request& request, uint64_t& trace,
                                GraphRegistry::Requests& unanswered) REQUIRES(m_mutex);
    // Starts the graph's departure: unload asked for, task manager told. Returns the requests that
    // still wait for its load, to be destroyed without the mutex: the end of a request writes to
    // the log.
    GraphRegistry::Requests retireGraphUnsafe(KelmGraph* graph) REQUIRES(m_mutex);
    void confirmDeparture(KelmGraph* graph, GraphRegistry::Confirmation confirmation)
        EXCLUDES(m_mutex);
    void notifyAllTasksDone(KelmGraph* graph) EXCLUDES(m_mutex);
    void notifyClientInDestroy(uint64_t clientId) EXCLUDES(m_mutex);

    void queryBufferSize(Request request) EXCLUDES(m_mutex);
    // Nothing once the service stops: the result dispatcher may be destroyed by then.
    void sendCreateGraphResponse(const CreateAnswer& answer, Request request);
    void sendDestroyGraphResponse(KelmError error, Request request);
    void sendQueryBufferSizeResponse(uint64_t outputBufferSize, uint64_t auxBufferSize,
                                     KelmError error, Request request);

    Mutex m_mutex;
    const bool m_printFps;
    const StepTrace m_trace;
    const bool m_snapshotBase;
    GraphDump m_dump;
    // Atomic: an id is drawn without regard to any other field.
    std::atomic<uint64_t> m_nextGraphId{1};
    GraphRegistry m_graphs GUARDED_BY(m_mutex);
    CondVar m_recordCond;  // a record has been deleted, or a load has failed
    // Atomic: set once when the service stops, and read before each answer.
    std::atomic<bool> m_stopped{false};
    ThreadRole m_onPool;
    GraphBlob::FileDigests m_fileDigests GUARDED_BY(m_onPool);
    std::weak_ptr<Creation> m_reader GUARDED_BY(m_onPool);  // one file in memory at a time
    GraphTurns m_turns;
    SerialPool m_pool;  // last: the others outlive its thread
};

}  // namespace kelm
