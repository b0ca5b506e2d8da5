#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "execution/TaskExchange.h"
#include "managers/TaskTraces.h"
#include "protocol/src/KelmError.h"
#include "protocol/src/MessagePtr.h"
#include "scheduling/tasks/TaskScheduleListener.h"
#include "utils/Mutex.h"
#include "utils/RecycledMap.h"
#include "utils/Singleton.h"
#include "utils/ThreadPool.h"

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
// A task is pinned while a call to the scheduler that names it is under way: its records come from
// a free list, so the answer of the scheduler could otherwise meet another task at the same
// address. The end of a pinned task waits for the last such answer.
//
// A request (`userParam`) is the client's message: it is answered exactly once.
//
// Threads: handlers run on the main pool's one thread, destroyTask() also on the destroy pool's;
// notifyCreateResponseSent() on a client's pool. Every enqueue... only queues, but for the two that
// concern workers.
// Owns: the tasks, the scheduler. Locks: m_mutex, then a task's. No call that can block is made and
// no task deleted under m_mutex.
class TaskManager final : public Singleton<TaskManager>,
                          public TaskExchange,
                          public TaskScheduleListener {
 public:
    explicit TaskManager(const std::string& name = "TaskManager");
    ~TaskManager();

    // Passes on `taskParam`, which is given back with a refused request.
    void enqueueCreateTask(uint64_t clientId, uint64_t graphId, KelmTaskParam* taskParam,
                           int socket, void* userParam);
    // A null `userParam` wants no answer.
    void enqueueCancelTask(uint64_t clientId, uint64_t taskId, int socket, void* userParam);
    void enqueueQueryTaskStatus(uint64_t clientId, uint64_t taskId, int socket, void* userParam);

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

    // The client is leaving, or has given up a graph that it shared: all its tasks are canceled.
    void enqueueNotifyClientInDestroy(uint64_t clientId);
    // The graph is going away: its tasks are canceled.
    void enqueueNotifyGraphInDestroy(KelmGraph* graph);

    // The create response of the task has been written, or will never be. A message in the result
    // obliges the caller to send it and then to destroy `task`; otherwise `task` is null.
    MessagePtr notifyCreateResponseSent(uint64_t taskId, KelmTask*& task) EXCLUDES(m_mutex);

    // The task's life, as the tracer sees it, is over: its last message has been written or
    // dropped. A task that never gets such a message ends with its record. An unknown id does
    // nothing.
    void finishTaskLifeTrace(uint64_t taskId) { m_taskTraces.finish(taskId); }

    // True when both pools have nothing to do within the time, which is for each of them.
    bool waitIdleFor(std::chrono::milliseconds time);

 private:
    // Where an answer goes.
    struct Response {
        void* userParam = nullptr;
        int socket = -1;
    };
    struct TaskState {
        int32_t pins = 0;      // answers of the scheduler that will name the task
        bool ended = false;    // to be destroyed when the last pin is gone
        bool givenUp = false;  // counts in m_givenUpTaskCounts
    };
    struct GraphCount {
        bool descheduled = false;
        int32_t count = 0;
    };
    // A task out of all lists whose record is being deleted; still counts for its client and graph.
    struct DyingTask {
        KelmTask* task;
        uint64_t id;
        uint64_t clientId;
        KelmGraph* graph;
        bool givenUp;
        std::string summary;  // empty when nobody logs it
    };

    void createTask(uint64_t clientId, uint64_t graphId, std::unique_ptr<KelmTaskParam> taskParam,
                    const Response& response) EXCLUDES(m_mutex);
    // The two records, or the reason of a refusal.
    KelmError admitTask(uint64_t clientId, uint64_t graphId, const void* request,
                        KelmClient*& client, KelmGraph*& graph);
    void enterTask(KelmTask* task, uint64_t clientId, const Response& response) EXCLUDES(m_mutex);
    void scheduleTaskDone(KelmTask* task, bool accepted) EXCLUDES(m_mutex);
    // -1: no such task; -2: its create request is not waiting; 0 with the place of the answer.
    int removeTaskInSchedule(KelmTask* task, Response& response) EXCLUDES(m_mutex);
    void rescheduleTaskDone(KelmTask* task, bool accepted) EXCLUDES(m_mutex);
    void returnTask(KelmTask* task) EXCLUDES(m_mutex);
    void cancelTask(uint64_t clientId, uint64_t taskId, const Response& response) EXCLUDES(m_mutex);
    void descheduleTaskDone(KelmTask* task, bool removed) EXCLUDES(m_mutex);
    void queryTaskStatus(uint64_t clientId, uint64_t taskId, const Response& response)
        EXCLUDES(m_mutex);
    // The client whose tasks the request may name; 0, which has none, if it is another user's.
    static uint64_t getTaskOwner(uint64_t clientId, const Response& response);
    // The task of that id if it is the client's, else null with the error.
    KelmTask* findTaskOfClientUnsafe(uint64_t clientId, uint64_t taskId, KelmError& error)
        REQUIRES(m_mutex);
    bool verifyTask(KelmTask* task) EXCLUDES(m_mutex);

    void destroyTask(KelmTask* task) EXCLUDES(m_mutex);
    // The scheduler's answer has come: destroys the task if it only waited for that.
    void unpinTask(KelmTask* task) EXCLUDES(m_mutex);
    // False if the task has gone, or goes later for its pins.
    bool unlinkTaskUnsafe(KelmTask* task, DyingTask& dying) REQUIRES(m_mutex);
    void finishTask(DyingTask& dying) EXCLUDES(m_mutex);
    // Takes the task off the counts of those who wait for their last one.
    void removeTask(const DyingTask& dying, bool& clientDone, bool& graphDone) EXCLUDES(m_mutex);

    void queryTaskScheduler(const std::shared_ptr<KelmStatus>& status);
    void notifyClientInDestroy(uint64_t clientId) EXCLUDES(m_mutex);
    int cancelRelatedTasks(uint64_t clientId, bool departing, std::vector<KelmTask*>& finished)
        EXCLUDES(m_mutex);
    void notifyGraphInDestroy(KelmGraph* graph) EXCLUDES(m_mutex);
    bool cancelRelatedTasks(KelmGraph* graph) EXCLUDES(m_mutex);
    void descheduleGraphDone(KelmGraph* graph) EXCLUDES(m_mutex);

    static bool verifyClient(uint64_t clientId);
    static KelmClient* getClientById(uint64_t clientId);
    static KelmGraph* getGraphById(uint64_t graphId);
    void sendCreateTaskResponse(KelmTask* task, KelmError error, const Response& response);
    void sendCancelTaskResponse(bool success, KelmError error, const Response& response);
    void sendQueryTaskStatusResponse(int32_t status, KelmError error, const Response& response);
    // At the end of the process nobody is left to answer to: releases the request, returns true.
    bool dropResponse(const Response& response);
    void notifyClientDone(uint64_t clientId);
    void notifyGraphDone(KelmGraph* graph);
    // What is left when the pools and the scheduler have stopped.
    void deleteLeftovers() EXCLUDES(m_mutex);

    Mutex m_mutex;
    std::unique_ptr<TaskSchedulerBase> m_scheduler;
    std::atomic<uint64_t> m_nextTaskId{1};  // atomic: drawn without regard to any other field
    const bool m_debugProcess;
    // Every live task; a pointer that is not in here is not to be trusted.
    RecycledMap<KelmTask*, TaskState> m_tasks GUARDED_BY(m_mutex);
    RecycledMap<uint64_t, KelmTask*> m_taskIdMap GUARDED_BY(m_mutex);  // those not ended
    RecycledMap<KelmTask*, Response> m_scheduleResponses GUARDED_BY(m_mutex);
    // In order of the requests for each task, in which the scheduler answers them too.
    std::multimap<KelmTask*, Response> m_cancelResponses GUARDED_BY(m_mutex);
    std::vector<const DyingTask*> m_dyingTasks GUARDED_BY(m_mutex);  // one per destroying thread
    std::map<uint64_t, int32_t> m_clientTaskCounts GUARDED_BY(m_mutex);  // departing clients
    // Clients that stay and have given up a shared graph: how many canceled tasks have not ended.
    std::map<uint64_t, int32_t> m_givenUpTaskCounts GUARDED_BY(m_mutex);
    std::map<KelmGraph*, GraphCount> m_graphTaskCounts GUARDED_BY(m_mutex);  // departing graphs
    TaskTraces m_taskTraces;
    // Atomic: set once in the destructor, and read wherever an answer would go out.
    std::atomic<bool> m_stopping{false};
    // Last, and emptied by the destructor in an order of its own.
    std::unique_ptr<ThreadPool> m_pool;
    std::unique_ptr<ThreadPool> m_destroyPool;
};

}  // namespace kelm
