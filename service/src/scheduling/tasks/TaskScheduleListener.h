#pragma once

namespace kelm {

class KelmGraph;
class KelmTask;

// Port: the task manager's ear for the task scheduler's decisions. Any thread; every call only
// queues.
class TaskScheduleListener {
 public:
    // The scheduler took the task, or refused it.
    virtual void enqueueScheduleTaskDone(KelmTask* task, bool accepted) = 0;
    virtual void enqueueRescheduleTaskDone(KelmTask* task, bool accepted) = 0;
    // Whether the task was still in a queue.
    virtual void enqueueDescheduleTaskDone(KelmTask* task, bool removed) = 0;
    // The scheduler holds nothing of the graph any more.
    virtual void enqueueDescheduleGraphDone(KelmGraph* graph) = 0;
    virtual void enqueueDestroyTask(KelmTask* task) = 0;

 protected:
    ~TaskScheduleListener() = default;
};

}  // namespace kelm
