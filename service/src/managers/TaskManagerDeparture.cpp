#include <algorithm>
#include <utility>

#include "managers/ClientManager.h"
#include "managers/GraphManager.h"
#include "managers/TaskManager.h"
#include "records/KelmGraph.h"
#include "records/KelmTask.h"
#include "scheduling/tasks/TaskSchedulerBase.h"
#include "utils/Log.h"
#include "utils/TextHelper.h"
#include "utils/Tracer.h"

namespace kelm {

void TaskManager::destroyTask(KelmTask* task) {
    DyingTask dying;
    {
        MutexLock lock(m_mutex);
        if (!unlinkTaskUnsafe(task, dying)) return;
    }
    finishTask(dying);
}

void TaskManager::unpinTask(KelmTask* task) {
    DyingTask dying;
    {
        MutexLock lock(m_mutex);
        TaskState* state = m_tasks.find(task);
        if (state == nullptr) return;
        --state->pins;
        if (!state->ended || !unlinkTaskUnsafe(task, dying)) return;
    }
    finishTask(dying);
}

bool TaskManager::unlinkTaskUnsafe(KelmTask* task, DyingTask& dying) {
    TaskState* state = m_tasks.find(task);
    if (state == nullptr) return false;
    dying.task = task;
    dying.id = task->getId();
    m_taskIdMap.erase(dying.id);
    state->ended = true;
    if (state->pins > 0) return false;
    const bool givenUp = state->givenUp;
    m_tasks.erase(task);
    dying.clientId = task->getClientId();
    dying.graph = task->getGraph();
    dying.givenUp = givenUp;
    if (m_debugProcess && Log::instance().isEnabled(LOG_LEVEL_FREQ)) {
        dying.summary = task->getSummary();
    }
    m_dyingTasks.push_back(&dying);
    return true;
}

void TaskManager::finishTask(DyingTask& dying) {
    LOG_FREQ(m_debugProcess, "%s", dying.summary);
    // Else the sender of its done message ends it.
    if (isTracerOn() && !dying.task->hasTaskDoneResponse()) finishTaskLifeTrace(dying.id);
    delete dying.task;  // without the mutex: closes descriptors and unmaps
    bool clientDone = false;
    bool graphDone = false;
    removeTask(dying, clientDone, graphDone);
    LOG_PROC(m_debugProcess, "task(%lu) destroyed", dying.id);
    if (clientDone) notifyClientDone(dying.clientId);
    if (graphDone) notifyGraphDone(dying.graph);
}

void TaskManager::removeTask(const DyingTask& dying, bool& clientDone, bool& graphDone) {
    MutexLock lock(m_mutex);
    std::erase(m_dyingTasks, &dying);
    const auto client = m_clientTaskCounts.find(dying.clientId);
    if (client != m_clientTaskCounts.end() && --client->second == 0) {
        m_clientTaskCounts.erase(client);
        clientDone = true;
    }
    const auto givenUp = m_givenUpTaskCounts.find(dying.clientId);
    if (dying.givenUp && givenUp != m_givenUpTaskCounts.end() && --givenUp->second == 0) {
        m_givenUpTaskCounts.erase(givenUp);
    }
    const auto graph = m_graphTaskCounts.find(dying.graph);
    if (graph != m_graphTaskCounts.end() && --graph->second.count == 0 &&
        graph->second.descheduled) {
        m_graphTaskCounts.erase(graph);
        graphDone = true;
    }
}

void TaskManager::notifyClientInDestroy(uint64_t clientId) {
    // Giving up a shared graph sends this notice too. It only cancels then: a count made while the
    // client can still make tasks would miss those, and so let its record go before them.
    const bool departing = !verifyClient(clientId);
    std::vector<KelmTask*> finished;
    const int count = cancelRelatedTasks(clientId, departing, finished);
    for (KelmTask* task : finished) destroyTask(task);
    if (departing && count == 0) notifyClientDone(clientId);
}

int TaskManager::cancelRelatedTasks(uint64_t clientId, bool departing,
                                    std::vector<KelmTask*>& finished) {
    MutexLock lock(m_mutex);
    // A second notice while the first is under way; that of a departure outranks the other kind.
    if (m_clientTaskCounts.contains(clientId)) return -1;
    if (!departing && m_givenUpTaskCounts.contains(clientId)) return -1;
    int count = 0;
    for (auto& [task, state] : m_tasks) {
        if (task->getClientId() != clientId) continue;
        task->cancel();
        ++count;
        // The create response of a client that has gone may never be written, so its done message
        // must not wait for it: the task has run and only that message kept it.
        if (departing && task->dropTaskDoneResponse()) finished.push_back(task);
        if (!departing) state.givenUp = true;
    }
    if (!departing && count > 0) m_givenUpTaskCounts.emplace(clientId, count);
    for (const DyingTask* dying : m_dyingTasks) {
        if (dying->clientId == clientId) ++count;
    }
    if (count == 0) return 0;
    LOG_PROC(m_debugProcess, "there are %d tasks related with client(%lu)", count, clientId);
    if (departing) m_clientTaskCounts.emplace(clientId, count);
    return count;
}

void TaskManager::notifyGraphInDestroy(KelmGraph* graph) {
    if (cancelRelatedTasks(graph)) m_scheduler->enqueueDescheduleGraph(graph);
}

bool TaskManager::cancelRelatedTasks(KelmGraph* graph) {
    MutexLock lock(m_mutex);
    const auto [entry, fresh] = m_graphTaskCounts.try_emplace(graph);
    if (!fresh) return false;
    int32_t& count = entry->second.count;
    for (const auto& [task, state] : m_tasks) {
        if (task->getGraph() != graph) continue;
        task->cancel();
        ++count;
    }
    for (const DyingTask* dying : m_dyingTasks) {
        if (dying->graph == graph) ++count;
    }
    if (count > 0) {
        LOG_PROC(m_debugProcess, "there are %u tasks related with graph(%s)", count,
                 escapeControls(graph->getName()));
    }
    return true;
}

void TaskManager::descheduleGraphDone(KelmGraph* graph) {
    {
        MutexLock lock(m_mutex);
        const auto entry = m_graphTaskCounts.find(graph);
        if (entry == m_graphTaskCounts.end()) return;
        if (entry->second.count >= 1) {
            entry->second.descheduled = true;
            return;
        }
        m_graphTaskCounts.erase(entry);
    }
    notifyGraphDone(graph);
}

void TaskManager::notifyClientDone(uint64_t clientId) {
    LOG_PROC(m_debugProcess, "no task related with client(%lu), notify ClientManager", clientId);
    ClientManager::instance().enqueueNotifyAllTasksDone(clientId);
}

void TaskManager::notifyGraphDone(KelmGraph* graph) {
    LOG_PROC(m_debugProcess, "no task related with graph(%s), notify GraphManager",
             escapeControls(graph->getName()));
    GraphManager::instance().enqueueNotifyAllTasksDone(graph);
}

void TaskManager::deleteLeftovers() {
    MutexLock lock(m_mutex);
    for (const auto& [task, state] : m_tasks) delete task;
}

}  // namespace kelm
