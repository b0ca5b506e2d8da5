#include "managers/TaskRegistry.h"

#include <utility>

#include "records/KelmGraph.h"
#include "records/KelmTask.h"
#include "utils/Log.h"
#include "utils/StepTrace.h"
#include "utils/TextHelper.h"

namespace kelm {

// After the pools of the manager: no handler has a task in hand any more.
TaskRegistry::~TaskRegistry() {
    MutexLock lock(m_mutex);
    for (const auto& [task, state] : m_tasks) delete task;
}

// The pin is that of the scheduler's answer, which has not been asked for yet.
void TaskRegistry::enter(KelmTask* task, Request request) {
    MutexLock lock(m_mutex);
    LOG_STEP("task(%lu) created for client(%lu) with userParam(%p)", task->getId(),
             request.getClientId(), request.getMessage());
    m_tasks.insert(task, TaskState{1, false, false});
    m_taskIdMap.insert(task->getId(), task);
    // Last, and consumed: from here on the answer's handler owns it.
    m_scheduleRequests.insert(task, std::move(request));
}

int TaskRegistry::takeScheduleRequest(KelmTask* task, Request& request) {
    MutexLock lock(m_mutex);
    if (m_tasks.find(task) == nullptr) {
        LOG_ERROR("Error: invalid task pointer %p", task);
        return -1;
    }
    Request* waiting = m_scheduleRequests.find(task);
    if (waiting == nullptr) {
        LOG_ERROR("Error: cannot find task(%lu) in task schedule list, destroy it", task->getId());
        return -2;
    }
    request = std::move(*waiting);
    m_scheduleRequests.erase(task);
    return 0;
}

KelmTask* TaskRegistry::pinForCancel(uint64_t clientId, Request& request, KelmError& error) {
    MutexLock lock(m_mutex);
    const uint64_t taskId = request.as<KelmMsgReqCancelTask>().taskId;
    KelmTask* task = findTaskOfClientUnsafe(clientId, taskId, error);
    if (task == nullptr) return nullptr;
    m_cancelRequests.emplace(task, std::move(request));
    ++m_tasks.find(task)->pins;
    return task;
}

bool TaskRegistry::takeCancelRequest(KelmTask* task, Request& request) {
    MutexLock lock(m_mutex);
    // The oldest one: a multimap keeps equal keys in order of insertion.
    const auto waiting = m_cancelRequests.lower_bound(task);
    if (waiting == m_cancelRequests.end() || waiting->first != task) return false;
    request = std::move(waiting->second);
    m_cancelRequests.erase(waiting);
    return true;
}

int32_t TaskRegistry::getStatus(uint64_t clientId, uint64_t taskId, KelmError& error) {
    MutexLock lock(m_mutex);
    KelmTask* task = findTaskOfClientUnsafe(clientId, taskId, error);
    return task != nullptr ? task->getStatus() : -1;
}

KelmTask* TaskRegistry::findTaskOfClientUnsafe(uint64_t clientId, uint64_t taskId,
                                               KelmError& error) {
    KelmTask** task = m_taskIdMap.find(taskId);
    if (task == nullptr) {
        LOG_ERROR("Error: invalid taskId %lu", taskId);
        error = KELM_ERROR_INVALID_TASK;
        return nullptr;
    }
    // Ids are counted up, so a client can guess those of others: it learns no more than that one is
    // taken.
    if ((*task)->getClientId() != clientId) {
        error = KELM_ERROR_NO_RIGHTS;
        return nullptr;
    }
    return *task;
}

bool TaskRegistry::verify(KelmTask* task) {
    MutexLock lock(m_mutex);
    return m_tasks.find(task) != nullptr;
}

MessagePtr TaskRegistry::takeHeldMessage(uint64_t taskId, KelmTask*& task) {
    MutexLock lock(m_mutex);
    KelmTask** found = m_taskIdMap.find(taskId);
    // Under the mutex, which keeps the task: a task without a held message may end at any moment.
    MessagePtr held = found != nullptr ? (*found)->setSendCreateResponseDone() : nullptr;
    task = held ? *found : nullptr;
    return held;
}

std::optional<TaskRegistry::DyingTask> TaskRegistry::end(KelmTask* task) {
    MutexLock lock(m_mutex);
    return unlinkUnsafe(task);
}

std::optional<TaskRegistry::DyingTask> TaskRegistry::unpin(KelmTask* task) {
    MutexLock lock(m_mutex);
    TaskState* state = m_tasks.find(task);
    if (state == nullptr) return std::nullopt;
    // Also of a task that goes on living: then its end does not wait for this answer any more.
    --state->pins;
    return state->ended ? unlinkUnsafe(task) : std::nullopt;
}

std::optional<TaskRegistry::DyingTask> TaskRegistry::unlinkUnsafe(KelmTask* task) {
    TaskState* state = m_tasks.find(task);
    if (state == nullptr) return std::nullopt;
    const uint64_t id = task->getId();
    m_taskIdMap.erase(id);  // also of a pinned task: clients cannot name it any more
    state->ended = true;
    // Ended, but the scheduler will still name its address; see the class.
    if (state->pins > 0) return std::nullopt;
    DyingTask dying{task, id, task->getClientId(), task->getGraph(), state->givenUp, {}};
    m_tasks.erase(task);
    // Read here, while the record is whole and the client's name is still known.
    if (m_trace.isOn() && Log::instance().isEnabled(LOG_LEVEL_FREQ)) {
        dying.summary = task->getSummary();
    }
    // Until removed() it still counts: a departure that is announced meanwhile waits for it.
    m_dyingTasks.push_back({id, dying.clientId, dying.graph});
    return dying;
}

TaskDepartures::Done TaskRegistry::removed(const DyingTask& dying) {
    MutexLock lock(m_mutex);
    std::erase_if(m_dyingTasks, [&](const Remains& remains) { return remains.id == dying.id; });
    return m_departures.removeTask(dying.clientId, dying.givenUp, dying.graph);
}

int TaskRegistry::cancelTasksOf(uint64_t clientId, bool departing,
                                std::vector<KelmTask*>& finished) {
    MutexLock lock(m_mutex);
    // A second notice while the first is under way. One of a departure is not held back by a count
    // of the other kind: the client's record waits for it.
    if (m_departures.hasClient(clientId)) return -1;
    if (!departing && m_departures.hasGivenUp(clientId)) return -1;
    int count = 0;
    // Marked and not taken out: each ends where it is, in a queue or at a worker, when that looks
    // at the mark.
    for (auto& [task, state] : m_tasks) {
        if (task->getClientId() != clientId) continue;
        task->cancel();
        ++count;
        // The create response of a client that has hung up may never be written, so the done
        // message must not wait for it: the task has run, and only that message keeps it.
        if (departing && task->dropTaskDoneResponse()) finished.push_back(task);
        if (!departing) state.givenUp = true;
    }
    if (!departing) m_departures.addGivenUp(clientId, count);
    // Their records refer to the client's until they are deleted, so they count.
    for (const Remains& remains : m_dyingTasks) {
        if (remains.clientId == clientId) ++count;
    }
    if (count == 0) return 0;
    LOG_STEP("there are %d tasks related with client(%lu)", count, clientId);
    if (departing) m_departures.addClient(clientId, count);
    return count;
}

bool TaskRegistry::cancelTasksOf(KelmGraph* graph) {
    MutexLock lock(m_mutex);
    // Dying tasks count too: their records are being deleted, and still refer to the graph.
    int32_t count = 0;
    for (const Remains& remains : m_dyingTasks) {
        if (remains.graph == graph) ++count;
    }
    for (const auto& [task, state] : m_tasks) {
        if (task->getGraph() == graph) ++count;
    }
    if (!m_departures.addGraph(graph, count)) return false;
    for (const auto& [task, state] : m_tasks) {
        if (task->getGraph() == graph) task->cancel();
    }
    if (count > 0) {
        LOG_STEP("there are %u tasks related with graph(%s)", count,
                 escapeControls(graph->getName()));
    }
    return true;
}

bool TaskRegistry::confirmDescheduled(KelmGraph* graph) {
    MutexLock lock(m_mutex);
    return m_departures.confirmDescheduled(graph);
}

}  // namespace kelm
