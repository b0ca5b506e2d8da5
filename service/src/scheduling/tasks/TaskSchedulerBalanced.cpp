#include "scheduling/tasks/TaskSchedulerBalanced.h"

#include "execution/WorkThread.h"
#include "records/KelmTask.h"
#include "scheduling/tasks/TaskQueuePolling.h"

namespace kelm {

TaskSchedulerBalanced::TaskSchedulerBalanced(const std::string& name)
    : TaskSchedulerFCFS(name, ForDerived{}) {
    startPrinting();
}

TaskSchedulerBalanced::~TaskSchedulerBalanced() { shutDown(); }

std::unique_ptr<TaskQueueBase> TaskSchedulerBalanced::createTaskQueue() {
    return std::make_unique<TaskQueuePolling>();
}

// The lock only at the limit. As there, the client's count can only fall before the queueing; that
// of the clients too, which makes shares larger.
bool TaskSchedulerBalanced::hasRoom(uint64_t clientId) {
    if (TaskSchedulerFCFS::hasRoom(clientId)) return true;
    MutexLock lock(m_mutex);
    return m_shares.isBelowShare(clientId, getMaxWaitTasks());
}

// A worker in the list has asked for a task and may hold others, which it took before. One whose
// device fails at once holds none: it would get the same task again and again. But it has asked
// anew as it took that task, so nearly all others have waited longer. The order of the rest is
// kept.
WorkThread* TaskSchedulerBalanced::takeWorkerUnsafe(WorkerList& workers, const KelmTask& task) {
    if (task.getLoadCount() > 0) return workers.popFront();
    size_t best = 0;
    uint32_t fewest = workers.front()->getHeldTasks();
    for (size_t i = 1; i < workers.size() && fewest > 0; ++i) {
        const uint32_t held = workers.at(i)->getHeldTasks();
        if (held >= fewest) continue;
        best = i;
        fewest = held;
    }
    WorkThread* const worker = workers.at(best);
    for (; best > 0; --best) workers.at(best) = workers.at(best - 1);
    (void)workers.popFront();  // what was moved up
    return worker;
}

void TaskSchedulerBalanced::noteQueuedUnsafe(uint64_t clientId) { m_shares.add(clientId); }

void TaskSchedulerBalanced::noteLeftUnsafe(uint64_t clientId) { m_shares.remove(clientId); }

}  // namespace kelm
