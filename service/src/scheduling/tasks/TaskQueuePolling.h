#pragma once

#include <map>

#include "scheduling/tasks/TaskQueueBase.h"

namespace kelm {

// Serves the clients of a graph in turn, in the order of their ids, so that each gets its share
// whatever the others send.
//
// Threads and locks: as the base.
class TaskQueuePolling : public TaskQueueBase {
 public:
    ~TaskQueuePolling() override;

    // `head` puts the task ahead of its client's others; the turns stay as they are.
    bool enqueue(KelmTask* task, bool head) override EXCLUDES(m_mutex);
    // Serves the client whose turn it is, or the next one that has a task. The turn then passes to
    // the client after that one; without any task it stays.
    KelmTask* dequeue() override EXCLUDES(m_mutex);
    bool removeTask(KelmTask* task) override EXCLUDES(m_mutex);
    bool removeTask(unsigned long clientId) override EXCLUDES(m_mutex);
    std::string getDescription() override EXCLUDES(m_mutex);
    uint64_t size() override EXCLUDES(m_mutex);
    std::vector<uint64_t> getClientIds() override EXCLUDES(m_mutex);

 private:
    using TaskMap = std::map<uint64_t, TaskList>;  // by client id; emptied lists stay

    void updateMapIndex(TaskMap::iterator next) REQUIRES(m_mutex);
    // The first entry of a range that has a task, or the range's end.
    static TaskMap::iterator findServable(TaskMap::iterator begin, TaskMap::iterator end);
    // Takes an entry out; a turn that stood on it passes on. Returns the entry behind it.
    TaskMap::iterator eraseEntry(TaskMap::iterator entry) REQUIRES(m_mutex);
    void forgetIdleClients() REQUIRES(m_mutex);

    TaskMap m_taskMap GUARDED_BY(m_mutex);
    // Whose turn it is; the end only while the map is empty.
    TaskMap::iterator m_mapIndex GUARDED_BY(m_mutex) = m_taskMap.end();
    uint64_t m_taskNum GUARDED_BY(m_mutex) = 0;  // sum over the lists
};

}  // namespace kelm
