#pragma once

#include <chrono>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "protocol/src/KelmError.h"
#include "scheduling/devices/PlacementNotes.h"
#include "scheduling/devices/StatusChangeOperation.h"
#include "scheduling/devices/StatusChangeRequest.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"
#include "utils/StepTrace.h"
#include "utils/ThreadRole.h"

namespace kelm {

class KelmGraph;
class WorkThread;

// Decides which graph is resident on which worker, and carries it out. Its clients post requests;
// the own thread makes passes: take the requests, sort them into sets, plan operations, commit
// them. The listeners for graph placement and worker removal get the answers.
//
// Threads: any may post a request. start() and stop() come from the owner's thread, the setters
// too, before start(). All else belongs to the scheduling thread.
// Owns: its thread and the operations of the pass. A worker is borrowed from addWorker() until the
// removal listener hears of it, a graph from loadGraph() until the placement listener hears of a
// failed load or of the unload: once a notice is out, nothing here follows that pointer.
// Locks: m_requestMutex is a leaf, never held during a pass.
//
// A pass blocks until its slowest operation is done, for ever if a device never answers. Then only
// this scheduler stands still; see stop().
class DeviceSchedulerBase : public NonCopyable {
 public:
    explicit DeviceSchedulerBase(const char* name);
    // The most derived class has joined the thread.
    virtual ~DeviceSchedulerBase();

    // A kind of scheduler ignores the settings that do not concern it.
    virtual void setStreamDeviceNum(unsigned long) {}
    virtual void setTagMap(std::map<std::string, unsigned long>&) {}
    virtual void setMaxGraphNumPerDevice(int) {}
    virtual void setMaxPendingTaskNum(int) {}
    virtual void setMaxPendingCycle(int) {}
    // Forgets a graph whose load failed, before it is tried again or its creator is told.
    virtual void handleLoadGraphFail(KelmGraph* graph) REQUIRES(m_onSchedulingThread) = 0;

    std::string getName() const { return m_name; }

    // Post a request and return. An unload is always answered, also of a graph that is not known
    // here; it takes back a load that has not come to an end.
    void loadGraph(KelmGraph* graph) EXCLUDES(m_requestMutex);
    void unloadGraph(KelmGraph* graph) EXCLUDES(m_requestMutex);
    void addWorker(WorkThread* worker) EXCLUDES(m_requestMutex);
    void removeWorker(WorkThread* worker) EXCLUDES(m_requestMutex);
    // A worker has failed: the next pass comes at once, and sees it.
    void wake() EXCLUDES(m_requestMutex);

    // A task waits for a graph that no device runs. Does nothing where plans do not follow that.
    virtual void notifyStarving() {}

    // Starts the scheduling thread, once the object is complete and set up.
    void start();
    // Ends the thread, after the pass that is in progress. False if it has not ended in time: then
    // the thread is left to itself, and this object, its workers and all that they use must never
    // be destroyed. The thread then follows no graph any more.
    bool stop(std::chrono::milliseconds limit) EXCLUDES(m_requestMutex);

    // The steps of a pass.
    void updateChangeRequest() REQUIRES(m_onSchedulingThread) EXCLUDES(m_requestMutex);
    void storeChangeRequests() REQUIRES(m_onSchedulingThread);
    void commitChangeOperation() REQUIRES(m_onSchedulingThread) EXCLUDES(m_requestMutex);

 protected:
    // The thread's body: passes until a wait says stop.
    virtual void schedule() REQUIRES(m_onSchedulingThread) = 0;
    // After the operations of a pass, before the graphs are judged.
    virtual void handleLostWorker(WorkThread*) REQUIRES(m_onSchedulingThread) {}

    // For plans: append an operation, and tell so in the log. A shallow unload leaves the graph in
    // the device's cache. `note` ends the unload's line.
    void makeLoad(KelmGraph* graph, WorkThread* worker) REQUIRES(m_onSchedulingThread);
    void makeUnload(KelmGraph* graph, WorkThread* worker, bool shallow, const char* note = "")
        REQUIRES(m_onSchedulingThread);
    void makePlugout(WorkThread* worker) REQUIRES(m_onSchedulingThread);
    // The graph in these lines, with what the kind of scheduler knows it by.
    virtual std::string describe(KelmGraph* graph);

    // For the journal of events; none has a part in a decision. The reason for a load is asked for
    // as the load is planned, the others when the pass is judged.
    virtual PlacementReason findLoadReason(KelmGraph* graph, WorkThread* worker)
        REQUIRES(m_onSchedulingThread);
    virtual PlacementLack findLack(KelmGraph* graph) REQUIRES(m_onSchedulingThread);
    void noteUnload(KelmGraph* graph, WorkThread* worker) REQUIRES(m_onSchedulingThread);

    // For the destructor of the most derived class: ends the thread, without a limit.
    void join() EXCLUDES(m_requestMutex);
    // Whether the next pass is due, or the end.
    bool hasReasonToWakeUnsafe() const REQUIRES(m_requestMutex) {
        return m_stop || m_woken || !m_newRequests.empty();
    }

    const std::string m_name;
    const StepTrace m_trace;
    bool m_retryLoadGraph = false;  // fixed by the derived constructor
    ThreadRole m_onSchedulingThread;

    // What this pass is about.
    std::set<KelmGraph*> m_loadGraphs GUARDED_BY(m_onSchedulingThread);
    std::set<KelmGraph*> m_unloadGraphs GUARDED_BY(m_onSchedulingThread);
    std::set<WorkThread*> m_addWorkers GUARDED_BY(m_onSchedulingThread);
    std::set<WorkThread*> m_removeWorkers GUARDED_BY(m_onSchedulingThread);
    // The workers held between passes.
    std::set<WorkThread*> m_workers GUARDED_BY(m_onSchedulingThread);
    // The plan, in the order of creation.
    std::list<std::unique_ptr<StatusChangeOperation>> m_operations GUARDED_BY(m_onSchedulingThread);
    PlacementNotes m_notes GUARDED_BY(m_onSchedulingThread);

    Mutex m_requestMutex;
    CondVar m_requestCond;
    // Set under the mutex and tested before each wait, so that no wake-up is lost.
    bool m_stop GUARDED_BY(m_requestMutex) = false;
    bool m_woken GUARDED_BY(m_requestMutex) = false;  // by wake(), until a pass begins
    std::list<StatusChangeRequest> m_newRequests GUARDED_BY(m_requestMutex);

 private:
    // What the creator of a graph is told at the end of a commit.
    struct LoadOutcome {
        KelmGraph* graph;
        KelmError error;
    };

    void postRequest(StatusChangeRequestType type, void* data) EXCLUDES(m_requestMutex);
    void storeUnloadRequest(KelmGraph* graph) REQUIRES(m_onSchedulingThread);
    void run() EXCLUDES(m_requestMutex);
    bool isAbandoned() EXCLUDES(m_requestMutex);

    void executeOperations() REQUIRES(m_onSchedulingThread);
    // False when this scheduler was given up meanwhile.
    bool waitOperations() REQUIRES(m_onSchedulingThread) EXCLUDES(m_requestMutex);
    void handleFailedOperations() REQUIRES(m_onSchedulingThread);
    // The answers to give; the graphs that get none yet are put into `retries`.
    std::vector<LoadOutcome> judgeLoads(std::set<KelmGraph*>& retries)
        REQUIRES(m_onSchedulingThread);
    bool isOnWorker(KelmGraph* graph) REQUIRES(m_onSchedulingThread);
    KelmError findLoadError(KelmGraph* graph) REQUIRES(m_onSchedulingThread);
    bool hasLoad(KelmGraph* graph) REQUIRES(m_onSchedulingThread);
    void tellNotes(const std::vector<LoadOutcome>& outcomes) REQUIRES(m_onSchedulingThread);
    void updateWorkers() REQUIRES(m_onSchedulingThread);
    void report(const std::vector<LoadOutcome>& outcomes, const std::set<KelmGraph*>& unloaded);

    std::list<StatusChangeRequest> m_takenRequests GUARDED_BY(m_onSchedulingThread);
    bool m_finished GUARDED_BY(m_requestMutex) = false;   // the thread's body is done
    bool m_abandoned GUARDED_BY(m_requestMutex) = false;  // the thread outlives its owner
    CondVar m_finishedCond;
    std::thread m_thread;  // the owner's, as start() and stop() are
};

}  // namespace kelm
