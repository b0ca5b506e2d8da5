#include "scheduling/tasks/TaskSchedulerPolling.h"

#include "scheduling/tasks/TaskQueuePolling.h"

namespace kelm {

TaskSchedulerPolling::TaskSchedulerPolling(const std::string& name)
    : TaskSchedulerFCFS(name, ForDerived{}) {
    startPrinting();
}

TaskSchedulerPolling::~TaskSchedulerPolling() { shutDown(); }

std::unique_ptr<TaskQueueBase> TaskSchedulerPolling::createTaskQueue() {
    return std::make_unique<TaskQueuePolling>();
}

}  // namespace kelm
