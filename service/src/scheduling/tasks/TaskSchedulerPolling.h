#pragma once

#include <memory>
#include <string>

#include "scheduling/tasks/TaskSchedulerFCFS.h"

namespace kelm {

// The default: as the base, but the clients of a graph are served in turn.
//
// Threads, ownership and locks: as the base.
class TaskSchedulerPolling : public TaskSchedulerFCFS {
 public:
    explicit TaskSchedulerPolling(const std::string& name);
    ~TaskSchedulerPolling() override;

 protected:
    std::unique_ptr<TaskQueueBase> createTaskQueue() override;
};

}  // namespace kelm
