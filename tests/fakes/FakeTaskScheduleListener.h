#pragma once

#include <utility>
#include <vector>

#include "scheduling/tasks/TaskScheduleListener.h"
#include "utils/Mutex.h"

namespace kelm {

// Records what the task scheduler decides; destroys nothing. Any thread.
class FakeTaskScheduleListener final : public TaskScheduleListener {
 public:
    using Decision = std::pair<KelmTask*, bool>;

    void enqueueScheduleTaskDone(KelmTask* task, bool accepted) override {
        MutexLock lock(m_mutex);
        m_scheduled.emplace_back(task, accepted);
    }
    void enqueueRescheduleTaskDone(KelmTask* task, bool accepted) override {
        MutexLock lock(m_mutex);
        m_rescheduled.emplace_back(task, accepted);
    }
    void enqueueDescheduleTaskDone(KelmTask* task, bool removed) override {
        MutexLock lock(m_mutex);
        m_descheduled.emplace_back(task, removed);
    }
    void enqueueDescheduleGraphDone(KelmGraph* graph) override {
        MutexLock lock(m_mutex);
        m_descheduledGraphs.push_back(graph);
    }
    void enqueueDestroyTask(KelmTask* task) override {
        MutexLock lock(m_mutex);
        m_destroyed.push_back(task);
    }

    // What was told so far, in order.
    std::vector<Decision> scheduled() {
        MutexLock lock(m_mutex);
        return m_scheduled;
    }
    std::vector<Decision> rescheduled() {
        MutexLock lock(m_mutex);
        return m_rescheduled;
    }
    std::vector<Decision> descheduled() {
        MutexLock lock(m_mutex);
        return m_descheduled;
    }
    std::vector<KelmGraph*> descheduledGraphs() {
        MutexLock lock(m_mutex);
        return m_descheduledGraphs;
    }
    std::vector<KelmTask*> destroyed() {
        MutexLock lock(m_mutex);
        return m_destroyed;
    }

 private:
    Mutex m_mutex;
    std::vector<Decision> m_scheduled GUARDED_BY(m_mutex);
    std::vector<Decision> m_rescheduled GUARDED_BY(m_mutex);
    std::vector<Decision> m_descheduled GUARDED_BY(m_mutex);
    std::vector<KelmGraph*> m_descheduledGraphs GUARDED_BY(m_mutex);
    std::vector<KelmTask*> m_destroyed GUARDED_BY(m_mutex);
};

}  // namespace kelm
