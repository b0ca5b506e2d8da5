#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "execution/TaskExchange.h"
#include "managers/TaskRegistry.h"
#include "managers/TaskTraces.h"
#include "protocol/src/KelmError.h"
#include "protocol/src/MessagePtr.h"
#include "records/Request.h"
#include "scheduling/tasks/TaskScheduleListener.h"
#include "utils/SerialPool.h"
#include "utils/Singleton.h"
#include "utils/StepTrace.h"

namespace kelm {

class KelmClient;
class KelmGraph;
class KelmTask;
class KelmTaskParam;
class TaskSchedulerBase;
struct KelmStatus;

// Owns every task. Makes one for each infer request, hands it to the task scheduler, answers cancel
// and status requests, and destroys tasks. Here the graph manager and the client manager learn that
// the last task of a departing graph or client has ended.
//
// Threads: handlers run on the main pool's one thread, destroyTask() also on the destroy pool's;
// notifyCreateResponseSent() on a client's pool. Every enqueue... only queues, but for the two that
// concern workers.
// Owns: the registry of the tasks, the scheduler. Locks: none of its own.
class TaskManager final : public Singleton<TaskManager>,
                          public TaskExchange,
                          public TaskScheduleListener {
 public:
    explicit TaskManager(const std::string& name = "TaskManager");
    ~TaskManager();

    // `taskParam` holds the buffers of the request.
    void enqueueCreateTask(Request request, std::unique_ptr<KelmTaskParam> taskParam);
    void enqueueCancelTask(Request request);
    void enqueueQueryTaskStatus(Request request);

    // Tells the scheduler's name; then reports that.
    void enqueueQueryTaskScheduler(const std::shared_ptr<KelmStatus>& status);

    void enqueueDestroyTask(KelmTask* task) override;
    void enqueueReturnTask(KelmTask* task) override;
    void enqueueScheduleTaskDone(KelmTask* task, bool accepted) override;
    void enqueueRescheduleTaskDone(KelmTask* task, bool accepted) override;
    void enqueueDescheduleTaskDone(KelmTask* task, bool removed) override;
    void enqueueDescheduleGraphDone(KelmGraph* graph) override;
    // Straight to the scheduler.
    void enqueueScheduleWorker(WorkThread* worker, KelmGraph* graph) override;
    void enqueueDescheduleWorker(WorkThread* worker, KelmGraph* graph) override;

    // The client departs, or has given up a graph that it shared: all its tasks are canceled.
    void enqueueNotifyClientInDestroy(uint64_t clientId);
    // The graph departs: its tasks are canceled.
    void enqueueNotifyGraphInDestroy(KelmGraph* graph);

    // The create response of the task has been written, or will never be. A message in the result
    // obliges the caller to send it and then to destroy `task`; otherwise `task` is null.
    MessagePtr notifyCreateResponseSent(uint64_t taskId, KelmTask*& task) {
        return m_registry.takeHeldMessage(taskId, task);
    }

    // The task's life, as the tracer sees it, is over: its last message has been written or
    // dropped. A task that never gets such a message ends with its record. An unknown id does
    // nothing.
    void finishTaskLifeTrace(uint64_t taskId) { m_taskTraces.finish(taskId); }

    // True when both pools have nothing to do within the time, which is for each of them.
    bool waitIdleFor(std::chrono::milliseconds time);

 private:
    void createTask(Request request, std::unique_ptr<KelmTaskParam> taskParam);
    // The two records, or the reason of a refusal.
    KelmError admitTask(const Request& request, KelmClient*& client, KelmGraph*& graph) const;
    void scheduleTaskDone(KelmTask* task, bool accepted);
    void rescheduleTaskDone(KelmTask* task, bool accepted);
    void returnTask(KelmTask* task);
    void cancelTask(Request request);
    void descheduleTaskDone(KelmTask* task, bool removed);
    void queryTaskStatus(Request request);
    // The client whose tasks the request may name: 0, which has no task, if the client that it
    // names is another user's.
    static uint64_t getTaskOwner(const Request& request);

    void destroyTask(KelmTask* task);
    // The scheduler's answer has come: destroys the task if it only waited for that.
    void unpinTask(KelmTask* task);
    // Finishes the task at once, or where that may take long.
    void endTask(const TaskRegistry::DyingTask& dying);
    void finishTask(const TaskRegistry::DyingTask& dying);

    void queryTaskScheduler(const std::shared_ptr<KelmStatus>& status);
    void notifyClientInDestroy(uint64_t clientId);
    void notifyGraphInDestroy(KelmGraph* graph);
    void descheduleGraphDone(KelmGraph* graph);

    static bool verifyClient(uint64_t clientId);
    static KelmGraph* getGraphById(uint64_t graphId);
    // Nothing once the process is ending: the result dispatcher is destroyed before this.
    void sendCreateTaskResponse(KelmTask* task, KelmError error, Request request);
    void sendCancelTaskResponse(bool success, KelmError error, Request request);
    void sendQueryTaskStatusResponse(int32_t status, KelmError error, Request request);
    void notifyClientDone(uint64_t clientId);
    void notifyGraphDone(KelmGraph* graph);

    std::unique_ptr<TaskSchedulerBase> m_scheduler;
    std::atomic<uint64_t> m_nextTaskId{1};  // atomic: drawn without regard to any other field
    const StepTrace m_trace;
    TaskRegistry m_registry;
    TaskTraces m_taskTraces;
    // Atomic: set once in the destructor, and read before each answer.
    std::atomic<bool> m_stopping{false};
    // Last, and emptied by the destructor in an order of its own.
    std::unique_ptr<SerialPool> m_pool;
    std::unique_ptr<SerialPool> m_destroyPool;
};

}  // namespace kelm
