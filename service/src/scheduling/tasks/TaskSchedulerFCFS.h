#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "reporting/PrintInfoListener.h"
#include "scheduling/tasks/TaskSchedulerBase.h"
#include "utils/Mutex.h"
#include "utils/Ring.h"
#include "utils/StepTrace.h"

namespace kelm {

class KelmClient;
class TaskQueueBase;

// Pairs waiting tasks with waiting workers, graph by graph, in order of arrival. While m_mutex is
// free a graph has queued tasks or listed workers, never both: a task and a worker each look for
// the other once more under the lock under which they would be queued, and the second makes the
// pair.
//
// Threads: overrides run on the base's two pools, onPrintInfo() on the printer's thread.
// Owns: the queues and, through them, the queued tasks. Graphs are borrowed until
// descheduleGraph(), workers until descheduleWorker() has been confirmed to them. A task event may
// hold a worker (and so its graph) at that moment: then the end of that hand-over confirms, and
// neither is destroyed while the task's thread uses it.
// Locks: m_mutex, then a queue's mutex, then a task's. No call that locks is made into a worker
// under it.
class TaskSchedulerFCFS : public TaskSchedulerBase, public PrintInfoListener {
 public:
    explicit TaskSchedulerFCFS(const std::string& name);
    ~TaskSchedulerFCFS() override;  // destroys what is still queued

    void scheduleTask(KelmTask* task) override EXCLUDES(m_mutex);
    void rescheduleTask(KelmTask* task) override EXCLUDES(m_mutex);
    void scheduleWorker(WorkThread* worker, KelmGraph* graph) override EXCLUDES(m_mutex);
    void descheduleTask(KelmTask* task) override EXCLUDES(m_mutex);
    void descheduleWorker(WorkThread* worker, KelmGraph* graph) override EXCLUDES(m_mutex);
    void descheduleGraph(KelmGraph* graph) override EXCLUDES(m_mutex);
    void onPrintInfo() override EXCLUDES(m_mutex);

    uint64_t getNumWaitTasks() const { return m_numWaitTasks.load(); }

 protected:
    // For derived classes, whose constructor ends with startPrinting() and whose destructor starts
    // with shutDown(): no thread may look at an object that is only partly there.
    struct ForDerived {};
    TaskSchedulerFCFS(const std::string& name, ForDerived);
    void startPrinting();
    void shutDown();

    using WorkerList = Ring<WorkThread*>;

    // What a derived class may do in another way.
    virtual std::unique_ptr<TaskQueueBase> createTaskQueue();
    // Whether a new task of the client may wait; asked on the tasks' one thread.
    virtual bool hasRoom(uint64_t clientId) EXCLUDES(m_mutex);
    // The worker, of a list that is not empty, that gets the task; it is taken off the list.
    virtual WorkThread* takeWorkerUnsafe(WorkerList& workers, const KelmTask& task)
        REQUIRES(m_mutex);
    // A task of the client has been queued, or has left its queue.
    virtual void noteQueuedUnsafe(uint64_t /*clientId*/) REQUIRES(m_mutex) {}
    virtual void noteLeftUnsafe(uint64_t /*clientId*/) REQUIRES(m_mutex) {}

    uint64_t getMaxWaitTasks() const { return m_maxWaitTasks; }

    Mutex m_mutex;

 private:
    // A task event's use of a worker that it took from the list; one at a time, as tasks have one
    // thread.
    struct HandOver {
        WorkThread* worker = nullptr;
        KelmGraph* graph = nullptr;
        uint32_t deferredAborts = 0;  // confirmations that wait for the end
    };
    class HandOverScope;

    // Whether the task is taken: not canceled, and room under the limit.
    bool acceptTask(KelmTask* task);
    // A worker for the task, with the hand-over begun; without one the task is queued.
    WorkThread* takeWorkerOrQueue(KelmTask* task, bool head) EXCLUDES(m_mutex);
    WorkThread* dequeueWaitingWorkerUnsafe(const KelmTask& task) REQUIRES(m_mutex);
    // Queues the task; or returns the worker that has been listed since the first look. A task that
    // is canceled or whose client has departed is destroyed instead.
    WorkThread* enqueueWaitingTask(KelmTask* task, bool head) EXCLUDES(m_mutex);
    void enqueueWaitingTaskUnsafe(KelmTask* task, KelmClient& client, bool head) REQUIRES(m_mutex);
    void endHandOver() EXCLUDES(m_mutex);

    // The graph's next task that is not canceled; without one the worker is listed.
    KelmTask* takeTaskOrWait(WorkThread* worker, KelmGraph* graph) EXCLUDES(m_mutex);
    KelmTask* dequeueWaitingTaskUnsafe(KelmGraph* graph) REQUIRES(m_mutex);
    void removeWaitingWorkerUnsafe(WorkThread* worker, KelmGraph* graph) REQUIRES(m_mutex);
    bool removeWaitingTask(KelmTask* task) EXCLUDES(m_mutex);
    std::unique_ptr<TaskQueueBase> takeQueueUnsafe(KelmGraph* graph) REQUIRES(m_mutex);

    void snapShotUnlocked(const char* label) EXCLUDES(m_mutex);
    void appendGraphUnsafe(std::string& text, KelmGraph* graph) REQUIRES(m_mutex);

    uint64_t m_maxWaitTasks = UINT64_MAX;  // fixed after construction, as the next two
    bool m_snapshotBase;
    const StepTrace m_trace;
    bool m_printing = false;  // constructors and destructors only
    // Atomic: the limit and the log lines read it outside m_mutex.
    std::atomic<uint64_t> m_numWaitTasks{0};

    std::map<KelmGraph*, std::unique_ptr<TaskQueueBase>> m_taskQueues GUARDED_BY(m_mutex);
    // First in, first out. An emptied list stays for the worker's next turn, until a worker leaves;
    // the key of an empty list is never followed.
    std::map<KelmGraph*, WorkerList> m_waitingWorkers GUARDED_BY(m_mutex);
    HandOver m_handOver GUARDED_BY(m_mutex);
};

}  // namespace kelm
