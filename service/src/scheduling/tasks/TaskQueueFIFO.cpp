#include "scheduling/tasks/TaskQueueFIFO.h"

#include "records/KelmTask.h"

namespace kelm {

TaskQueueFIFO::~TaskQueueFIFO() { destroyAll(m_tasks); }

bool TaskQueueFIFO::enqueue(KelmTask* task, bool head) {
    MutexLock lock(m_mutex);
    insertTask(m_tasks, task, head);
    // Under the mutex: once it is free the task may be taken, and the next status is the worker's
    // to set.
    task->setStatus(TASK_STATUS_QUEUED);
    return true;
}

KelmTask* TaskQueueFIFO::dequeue() {
    MutexLock lock(m_mutex);
    return m_tasks.empty() ? nullptr : m_tasks.popFront();
}

bool TaskQueueFIFO::removeTask(KelmTask* task) {
    MutexLock lock(m_mutex);
    return destroyOne(m_tasks, task);
}

// Every client is known to this queue: it keeps no list of them.
bool TaskQueueFIFO::removeTask(unsigned long clientId) {
    MutexLock lock(m_mutex);
    (void)destroyOfClient(m_tasks, clientId);  // none is no failure here
    return true;
}

std::string TaskQueueFIFO::getDescription() {
    MutexLock lock(m_mutex);
    std::string text = "WaitingTasks(count=" + std::to_string(m_tasks.size()) + "):\n";
    appendDescription(text, m_tasks, 5);
    return text;
}

uint64_t TaskQueueFIFO::size() {
    MutexLock lock(m_mutex);
    return m_tasks.size();
}

std::vector<uint64_t> TaskQueueFIFO::getClientIds() {
    MutexLock lock(m_mutex);
    std::vector<uint64_t> clientIds;
    appendClientIds(clientIds, m_tasks);
    return clientIds;
}

}  // namespace kelm
