#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "utils/NonCopyable.h"

namespace kelm {

class KelmGraph;
class KelmTask;
class SerialPool;
class WorkThread;

// Pairs two streams: tasks that want a worker for their graph, and workers that want a task of the
// graph that they hold. Here are the two pools and the ways in; the derived class has the logic.
//
// Threads: any may call an enqueue... operation until the destructor begins. New and returned tasks
// run on the task pool; workers, and graphs, workers and tasks that leave, run on the worker pool
// and are ordered among themselves. A task event may overtake them. Owns: the pools. The destructor
// of each derived class starts with stopPools(), so that nothing runs on an object of which a part
// is destroyed.
class TaskSchedulerBase : public NonCopyable {
 public:
    explicit TaskSchedulerBase(std::string name);
    virtual ~TaskSchedulerBase();

    const std::string& getName() const { return m_name; }

    // New work: waits while the task pool is full. The pointer passes to the scheduler.
    void enqueueScheduleTask(KelmTask* task);
    // The others complete or cancel earlier work and never wait.
    void enqueueRescheduleTask(KelmTask* task);
    void enqueueScheduleWorker(WorkThread* worker, KelmGraph* graph);
    void enqueueDescheduleWorker(WorkThread* worker, KelmGraph* graph);
    // The task must live until enqueueDescheduleTaskDone().
    void enqueueDescheduleTask(KelmTask* task);
    void enqueueDescheduleGraph(KelmGraph* graph);

    // The steps behind these, on the pools.
    virtual void scheduleTask(KelmTask* task) = 0;
    virtual void rescheduleTask(KelmTask* task) = 0;
    virtual void scheduleWorker(WorkThread* worker, KelmGraph* graph) = 0;
    virtual void descheduleTask(KelmTask* task) = 0;
    virtual void descheduleWorker(WorkThread* worker, KelmGraph* graph) = 0;
    virtual void descheduleGraph(KelmGraph* graph) = 0;

 protected:
    // Runs what is queued and ends the pools' threads; a second call does nothing.
    void stopPools();

 private:
    static SerialPool& running(const std::unique_ptr<SerialPool>& pool);

    const std::string m_name;
    std::unique_ptr<SerialPool> m_taskPool;    // null once stopped
    std::unique_ptr<SerialPool> m_workerPool;  // null once stopped
};

}  // namespace kelm
