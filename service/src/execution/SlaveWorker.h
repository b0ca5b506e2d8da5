#pragma once

#include <atomic>
#include <cstdint>
#include <future>
#include <string>
#include <vector>

#include "utils/Mutex.h"
#include "utils/NonCopyable.h"
#include "utils/Semaphore.h"
#include "utils/SerialPool.h"
#include "utils/StepTrace.h"
#include "utils/ThreadRole.h"

namespace kelm {

class KelmDeviceBase;
class KelmGraph;
class KelmTask;
class WorkThread;

// Runs one graph on a clone of the device: one thread feeds inputs, another collects results. It
// pulls its work: as it starts to feed a task it asks for the next, so that the task scheduler has
// at most one request of it.
//
// Threads: graph operations and inputs are strictly ordered on the input pool, results come in the
// order of their inputs on the result pool.
// Owns: nothing but its pools. Borrows the clone and the work thread, which outlive it; the graph
// from its load until its unload is done.
// Locks: m_mutex is a leaf, never held across a device call.
// Once the device has failed for good, or destruction has begun, the device is not called for tasks
// any more and every task is given back.
class SlaveWorker : public NonCopyable {
 public:
    SlaveWorker(const std::string& name, WorkThread* workThread, KelmDeviceBase* device,
                uint64_t maxRunningTasks);
    // stop(), then takes a graph that is still loaded off the device.
    ~SlaveWorker();

    // Futures of a KelmError.
    std::shared_future<int> enqueueLoadGraph(KelmGraph* graph);
    std::shared_future<int> enqueueUnloadGraph(KelmGraph* graph, bool keepCached);
    // Passes the task on. Not held by the pool's limit: there is one request at a time.
    void enqueueLoadTensor(KelmTask* task);
    // The task scheduler will send no more tasks to this worker.
    void enqueueAbortApplyTaskDone() { m_abortSemaphore.post(); }

    // For display: a worker with a failed device may show another state than the error.
    const char* getState() const;
    KelmDeviceBase* getDevice() const { return m_device; }
    // The loaded graph, or null.
    KelmGraph* getGraph() const { return m_graph.load(); }
    // Whether a graph is loaded or a load of one is on its way.
    bool isOccupied() const { return m_loadsUnderWay.load() > 0 || getGraph() != nullptr; }

    // Gives back what is queued and in flight, and waits for it. Later work is refused.
    void stop();

 private:
    enum State : int32_t {
        STATE_INIT,
        STATE_WAIT_GRAPH,
        STATE_LOAD_GRAPH,
        STATE_UNLOAD_GRAPH,
        STATE_WAIT_TASK,
        STATE_RUNNING,
        STATE_ERROR,
    };

    // Input pool.
    int loadGraph(KelmGraph* graph) REQUIRES(m_onInputThread);
    int allocateGraph(KelmGraph* graph) REQUIRES(m_onInputThread);
    int unloadGraph(KelmGraph* graph, bool keepCached) REQUIRES(m_onInputThread);
    int deallocateGraph(KelmGraph* graph, bool keepCached) REQUIRES(m_onInputThread);
    void loadTensor(KelmTask* task) REQUIRES(m_onInputThread);
    void feedDevice(KelmTask* task) REQUIRES(m_onInputThread);
    void applyNextTask() REQUIRES(m_onInputThread);
    void abortApplyTask() REQUIRES(m_onInputThread);
    void waitAbortApplyTaskDone() REQUIRES(m_onInputThread);
    void waitRunningTaskNotFull() REQUIRES(m_onInputThread) EXCLUDES(m_mutex);
    void waitNoRunningTask() REQUIRES(m_onInputThread) EXCLUDES(m_mutex);
    void enqueueGetResult(KelmTask* task) REQUIRES(m_onInputThread) EXCLUDES(m_mutex);

    // Result pool.
    void getResult(KelmTask* task) REQUIRES(m_onResultThread);
    void eraseRunningTask(KelmTask* task) REQUIRES(m_onResultThread) EXCLUDES(m_mutex);

    // Both. Each of the task operations passes the task on.
    void handleTaskWithRunError(KelmTask* task, int rc);
    void handleDeviceError(int rc);
    void sendTaskDoneResponse(KelmTask* task, int rc);
    void returnTask(KelmTask* task);
    void destroyTask(KelmTask* task);

    const std::string m_name;
    WorkThread* const m_workThread;
    KelmDeviceBase* const m_device;
    const StepTrace m_trace;
    const uint64_t m_maxRunningTasks;
    ThreadRole m_onInputThread;
    ThreadRole m_onResultThread;

    // Atomic: both threads write it, for display only.
    std::atomic<State> m_state{STATE_INIT};
    // Atomic: written on the input thread, compared on the thread that brings an answer.
    std::atomic<KelmGraph*> m_graph{nullptr};
    // Atomics: flags that change once, set by either thread or the destructor's.
    std::atomic<bool> m_isDeviceValid{true};
    std::atomic<bool> m_isApplyEnabled{true};
    std::atomic<bool> m_isStopping{false};
    std::atomic<int32_t> m_loadsUnderWay{0};  // atomic: see isOccupied(), read by the work thread

    Mutex m_mutex;
    // What the device holds: input loaded, result not yet taken. A set of a few.
    std::vector<KelmTask*> m_runningTasks GUARDED_BY(m_mutex);
    CondVar m_noRunningCond;
    CondVar m_notFullCond;
    Semaphore m_abortSemaphore;

    // Last, since their jobs use all of the above. Inputs post to the results' pool.
    SerialPool m_resultPool;
    SerialPool m_inputPool;
};

}  // namespace kelm
