#pragma once

#include "fakes/Recorded.h"
#include "scheduling/tasks/TaskScheduleListener.h"

namespace kelm {

// Records what the task scheduler decides; destroys nothing. Any thread.
class FakeTaskScheduleListener final : public TaskScheduleListener {
 public:
    using Decision = std::pair<KelmTask*, bool>;

    void enqueueScheduleTaskDone(KelmTask* task, bool accepted) override {
        scheduled.add(task, accepted);
    }
    void enqueueRescheduleTaskDone(KelmTask* task, bool accepted) override {
        rescheduled.add(task, accepted);
    }
    void enqueueDescheduleTaskDone(KelmTask* task, bool removed) override {
        descheduled.add(task, removed);
    }
    void enqueueDescheduleGraphDone(KelmGraph* graph) override { descheduledGraphs.add(graph); }
    void enqueueDestroyTask(KelmTask* task) override { destroyed.add(task); }

    Recorded<Decision> scheduled;
    Recorded<Decision> rescheduled;
    Recorded<Decision> descheduled;
    Recorded<KelmGraph*> descheduledGraphs;
    Recorded<KelmTask*> destroyed;
};

}  // namespace kelm
