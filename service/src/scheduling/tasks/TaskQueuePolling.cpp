#include "scheduling/tasks/TaskQueuePolling.h"

#include <iterator>

#include "records/KelmTask.h"
#include "utils/StringHelper.h"

namespace kelm {

namespace {

// Clients connect and depart while a shared graph stays: from this many entries on, a new client's
// arrival drops those that have run empty, or the map would grow for as long as the graph lives.
constexpr size_t kEntriesToKeep = 64;

}  // namespace

TaskQueuePolling::~TaskQueuePolling() {
    for (auto& entry : m_taskMap) destroyAll(entry.second);
}

// The turns are a ring: behind the last client comes the first.
void TaskQueuePolling::updateMapIndex(TaskMap::iterator next) {
    m_mapIndex = next == m_taskMap.end() ? m_taskMap.begin() : next;
}

TaskQueuePolling::TaskMap::iterator TaskQueuePolling::findServable(TaskMap::iterator begin,
                                                                   TaskMap::iterator end) {
    while (begin != end && begin->second.empty()) ++begin;
    return begin;
}

// The turn must not stay on an erased entry.
TaskQueuePolling::TaskMap::iterator TaskQueuePolling::eraseEntry(TaskMap::iterator entry) {
    const bool hadTurn = m_mapIndex == entry;
    const auto next = m_taskMap.erase(entry);
    if (hadTurn) updateMapIndex(next);
    return next;
}

// A client that is forgotten loses nothing: its next task makes a new entry.
void TaskQueuePolling::forgetIdleClients() {
    for (auto entry = m_taskMap.begin(); entry != m_taskMap.end();) {
        entry = entry->second.empty() ? eraseEntry(entry) : std::next(entry);
    }
}

bool TaskQueuePolling::enqueue(KelmTask* task, bool head) {
    const uint64_t clientId = task->getClientId();
    MutexLock lock(m_mutex);
    if (m_taskMap.size() >= kEntriesToKeep && !m_taskMap.contains(clientId)) forgetIdleClients();
    insertTask(m_taskMap[clientId], task, head);
    ++m_taskNum;
    if (m_taskMap.size() == 1) m_mapIndex = m_taskMap.begin();  // it stood at the empty map's end
    // Under the mutex: once it is free the task may be taken, and the next status is the worker's
    // to set.
    task->setStatus(TASK_STATUS_QUEUED);
    return true;
}

KelmTask* TaskQueuePolling::dequeue() {
    MutexLock lock(m_mutex);
    if (m_taskNum == 0) return nullptr;
    auto entry = findServable(m_mapIndex, m_taskMap.end());
    // Around the end, back to where the turn is. There is a task, so one of the two finds it.
    if (entry == m_taskMap.end()) entry = findServable(m_taskMap.begin(), m_mapIndex);
    KelmTask* const task = entry->second.popFront();
    --m_taskNum;
    // A served client waits for all others, however many tasks it has left.
    updateMapIndex(std::next(entry));
    return task;
}

bool TaskQueuePolling::removeTask(KelmTask* task) {
    MutexLock lock(m_mutex);
    const auto entry = m_taskMap.find(task->getClientId());
    if (entry == m_taskMap.end() || !destroyOne(entry->second, task)) return false;
    --m_taskNum;
    return true;
}

bool TaskQueuePolling::removeTask(unsigned long clientId) {
    MutexLock lock(m_mutex);
    const auto entry = m_taskMap.find(clientId);
    if (entry == m_taskMap.end()) return false;
    m_taskNum -= entry->second.size();
    destroyAll(entry->second);
    (void)eraseEntry(entry);
    return true;
}

std::string TaskQueuePolling::getDescription() {
    MutexLock lock(m_mutex);
    std::string text = StringHelper::format("WaitingTasks(numClients=%lu numTasks=%lu):\n",
                                            m_taskMap.size(), m_taskNum);
    for (const auto& [clientId, tasks] : m_taskMap) {
        text += StringHelper::format("     TaskQueue for client(id:%lu) (numTasks=%lu):\n",
                                     clientId, tasks.size());
        appendDescription(text, tasks, 7);
    }
    return text;
}

uint64_t TaskQueuePolling::size() {
    MutexLock lock(m_mutex);
    return m_taskNum;
}

std::vector<uint64_t> TaskQueuePolling::getClientIds() {
    MutexLock lock(m_mutex);
    std::vector<uint64_t> clientIds;
    for (const auto& entry : m_taskMap) appendClientIds(clientIds, entry.second);
    return clientIds;
}

}  // namespace kelm
