#include "scheduling/tasks/TaskQueueBase.h"

#include "records/KelmTask.h"
#include "scheduling/tasks/TaskScheduleListener.h"
#include "utils/Port.h"
#include "utils/StringHelper.h"
#include "utils/TextHelper.h"

namespace kelm {

// Only asks for the end: the manager of tasks destroys it on its own thread, later.
void TaskQueueBase::destroyTask(KelmTask* task) {
    Port<TaskScheduleListener>::notify<&TaskScheduleListener::enqueueDestroyTask>(task);
}

void TaskQueueBase::insertTask(TaskList& tasks, KelmTask* task, bool head) {
    if (head) {
        tasks.pushFront(task);
    } else {
        tasks.pushBack(task);
    }
}

// One turn of the ring: each task is taken from the front and destroyed or put at the back, which
// keeps the order of the rest.
template <class Predicate>
uint64_t TaskQueueBase::destroyIf(TaskList& tasks, Predicate predicate) {
    const size_t count = tasks.size();
    for (size_t i = 0; i < count; ++i) {
        KelmTask* const task = tasks.popFront();
        if (predicate(task)) {
            destroyTask(task);
        } else {
            tasks.pushBack(task);
        }
    }
    return count - tasks.size();
}

bool TaskQueueBase::destroyOne(TaskList& tasks, const KelmTask* task) {
    return destroyIf(tasks, [task](const KelmTask* other) { return other == task; }) > 0;
}

uint64_t TaskQueueBase::destroyOfClient(TaskList& tasks, uint64_t clientId) {
    return destroyIf(tasks,
                     [clientId](const KelmTask* task) { return task->getClientId() == clientId; });
}

void TaskQueueBase::destroyAll(TaskList& tasks) {
    while (!tasks.empty()) destroyTask(tasks.popFront());
}

void TaskQueueBase::appendDescription(std::string& text, const TaskList& tasks, size_t indent) {
    for (size_t i = 0; i < tasks.size(); ++i) {
        // A queued task cannot be destroyed while the queue's mutex is held, so it may be followed
        // here.
        KelmTask& task = *tasks.at(i);
        text += std::string(indent, ' ');
        text += StringHelper::format(
            "[%02lu] TaskId=%lu Client=%s ClientId=%lu TimeToKelmHal=%s TimeToTaskQueue=%s\n", i,
            task.getId(), escapeControls(task.getClientName()), task.getClientId(),
            task.getTimeToKelmHal(), task.getTimeToTaskQueue());
    }
}

void TaskQueueBase::appendClientIds(std::vector<uint64_t>& clientIds, const TaskList& tasks) {
    for (size_t i = 0; i < tasks.size(); ++i) clientIds.push_back(tasks.at(i)->getClientId());
}

}  // namespace kelm
