#pragma once

namespace kelm {

class KelmGraph;
class KelmTask;
class WorkThread;

// Port: what a worker asks of the keeper of the tasks. Any thread; every call only queues.
class TaskExchange {
 public:
    // The worker wants one more task of the graph.
    virtual void enqueueScheduleWorker(WorkThread* worker, KelmGraph* graph) = 0;
    // Drops the worker's outstanding request; WorkThread::enqueueAbortApplyTaskDone answers.
    virtual void enqueueDescheduleWorker(WorkThread* worker, KelmGraph* graph) = 0;
    // Passes the task back, to run elsewhere.
    virtual void enqueueReturnTask(KelmTask* task) = 0;
    virtual void enqueueDestroyTask(KelmTask* task) = 0;

 protected:
    ~TaskExchange() = default;
};

}  // namespace kelm
