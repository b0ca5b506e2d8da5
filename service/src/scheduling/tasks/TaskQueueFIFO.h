#pragma once

#include "scheduling/tasks/TaskQueueBase.h"

namespace kelm {

// Serves tasks in their order of arrival, so a client that floods a graph delays all others.
//
// Threads and locks: as the base.
class TaskQueueFIFO : public TaskQueueBase {
 public:
    ~TaskQueueFIFO() override;

    bool enqueue(KelmTask* task, bool head) override EXCLUDES(m_mutex);
    KelmTask* dequeue() override EXCLUDES(m_mutex);
    bool removeTask(KelmTask* task) override EXCLUDES(m_mutex);
    // Always true.
    bool removeTask(unsigned long clientId) override EXCLUDES(m_mutex);
    std::string getDescription() override EXCLUDES(m_mutex);
    uint64_t size() override EXCLUDES(m_mutex);
    std::vector<uint64_t> getClientIds() override EXCLUDES(m_mutex);

 private:
    TaskList m_tasks GUARDED_BY(m_mutex);
};

}  // namespace kelm
