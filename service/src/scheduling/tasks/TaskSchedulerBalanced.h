#pragma once

#include <memory>
#include <string>

#include "scheduling/tasks/TaskSchedulerFCFS.h"
#include "scheduling/tasks/WaitingShares.h"

namespace kelm {

// As the base, but the clients of a graph are served in turn, a task goes to the waiting worker
// that holds the fewest, and a client that floods the service takes no other's place: at the limit
// of waiting tasks a client is refused only if it has its equal share of them waiting.
//
// Deliberate: nothing that waits makes room. Its client has been told that it was accepted, so a
// client below its share exceeds the limit, and those above theirs are refused until less waits.
//
// Threads, ownership and locks: as the base.
class TaskSchedulerBalanced : public TaskSchedulerFCFS {
 public:
    explicit TaskSchedulerBalanced(const std::string& name);
    ~TaskSchedulerBalanced() override;

 protected:
    std::unique_ptr<TaskQueueBase> createTaskQueue() override;
    bool hasRoom(uint64_t clientId) override EXCLUDES(m_mutex);
    // Of those that hold equally few, the one that has waited longest; for a task that has failed
    // on a device, of all.
    WorkThread* takeWorkerUnsafe(WorkerList& workers, const KelmTask& task) override
        REQUIRES(m_mutex);
    void noteQueuedUnsafe(uint64_t clientId) override REQUIRES(m_mutex);
    void noteLeftUnsafe(uint64_t clientId) override REQUIRES(m_mutex);

 private:
    WaitingShares m_shares GUARDED_BY(m_mutex);
};

}  // namespace kelm
