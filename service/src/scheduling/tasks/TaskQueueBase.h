#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "utils/Mutex.h"
#include "utils/NonCopyable.h"
#include "utils/Ring.h"

namespace kelm {

class KelmTask;

// The tasks of one graph that wait for a worker. A task in a queue belongs to it: what is removed,
// or still there at the end, is destroyed.
//
// Threads: any; the schedulers call with their own mutex held.
// Locks: m_mutex, then a task's.
class TaskQueueBase : public NonCopyable {
 public:
    virtual ~TaskQueueBase() = default;

    // `head` puts the task ahead of those of its kind; it becomes "queued".
    virtual bool enqueue(KelmTask* task, bool head) = 0;
    // The next task by the queue's rule, or null.
    virtual KelmTask* dequeue() = 0;
    // Destroys the task; false if it is not here.
    virtual bool removeTask(KelmTask* task) = 0;
    // Destroys the tasks of a client; false if the queue knows no such client.
    virtual bool removeTask(unsigned long clientId) = 0;
    // Several lines, for the snapshot.
    virtual std::string getDescription() = 0;
    virtual uint64_t size() = 0;
    // The client of each task that is here.
    virtual std::vector<uint64_t> getClientIds() = 0;

 protected:
    using TaskList = Ring<KelmTask*>;  // keeps its slots: no heap for a task in the steady state

    static void destroyTask(KelmTask* task);
    static void insertTask(TaskList& tasks, KelmTask* task, bool head);
    // Both keep the order of the rest.
    static bool destroyOne(TaskList& tasks, const KelmTask* task);
    static uint64_t destroyOfClient(TaskList& tasks, uint64_t clientId);
    static void destroyAll(TaskList& tasks);
    static void appendDescription(std::string& text, const TaskList& tasks, size_t indent);
    static void appendClientIds(std::vector<uint64_t>& clientIds, const TaskList& tasks);

    Mutex m_mutex;  // guards the fields of the derived class

 private:
    template <class Predicate>
    static uint64_t destroyIf(TaskList& tasks, Predicate predicate);
};

}  // namespace kelm
