#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "utils/InlineTask.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"
#include "utils/Ring.h"

namespace kelm {

// A bounded queue of tasks and several threads that run them; see SerialPool for one thread. Tasks
// begin in the order of submission and overlap. What a task throws is logged.
//
// Threads: any may submit. Owns: its threads and what is queued. Locks: m_mutex, a leaf.
// Lifecycle: running from construction until the destructor, which runs everything that is queued.
// Submitting after that throws std::runtime_error "failed to enqueue, threadPool is stopped".
class ThreadPool : public NonCopyable {
 public:
    // Starts the threads, named `name` + "T" + index.
    ThreadPool(std::string name, uint64_t threadNumber, uint64_t maxQueueSize);
    ~ThreadPool();

    // A full queue blocks its producer, unless that is one of the pool's own threads.
    void post(InlineTask task) EXCLUDES(m_mutex) { insert(std::move(task), true); }
    // For a notice that completes earlier work: never waits for room.
    void postNotice(InlineTask task) EXCLUDES(m_mutex) { insert(std::move(task), false); }

    // True when nothing is queued and every thread is idle within the time.
    bool waitIdleFor(std::chrono::milliseconds time) EXCLUDES(m_mutex);

 private:
    void insert(InlineTask task, bool limited) EXCLUDES(m_mutex);
    void throwIfStoppedUnsafe() const REQUIRES(m_mutex);
    void workerRoutine(uint64_t index) EXCLUDES(m_mutex);

    const std::string m_name;
    const uint64_t m_maxQueueSize;

    Mutex m_mutex;
    CondVar m_idleCond;
    CondVar m_workCond;
    CondVar m_roomCond;
    bool m_stop GUARDED_BY(m_mutex) = false;
    Ring<InlineTask> m_queue GUARDED_BY(m_mutex);
    uint64_t m_running GUARDED_BY(m_mutex) = 0;  // tasks

    std::vector<std::thread> m_threads;  // last: they use all of the above
};

}  // namespace kelm
