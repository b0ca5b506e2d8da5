#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "utils/InlineTask.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"
#include "utils/Ring.h"

namespace kelm {

// A bounded queue of tasks and the threads that run them. With one thread, which nearly all pools
// have, it is a strict serial executor: tasks never overlap and run in the order of submission.
//
// A full queue blocks its producer and never drops work. Two kinds of task are not held back, since
// pools that wait on each other would close a circle: notices that complete earlier work
// (postNotice), and whatever the pool's own thread submits.
//
// Threads: any may submit. Owns: its threads and what is queued.
// Locks: m_mutex, held for queue manipulation only, never while a task runs.
// Lifecycle: running from construction until the destructor, which runs everything that is queued.
// Submitting after that throws std::runtime_error "failed to enqueue, threadPool is stopped".
class ThreadPool : public NonCopyable {
 public:
    // Starts the threads, named `name` + "T" + index. With none, tasks only pile up.
    ThreadPool(std::string name, uint64_t threadNumber, uint64_t maxQueueSize);
    ~ThreadPool();

    // Runs `f` and returns a future of its result; what `f` throws lands there. Held by the limit.
    template <class F>
    std::future<std::invoke_result_t<std::decay_t<F>&>> enqueue(F&& f) {
        std::packaged_task<std::invoke_result_t<std::decay_t<F>&>()> task(std::forward<F>(f));
        auto result = task.get_future();
        enqueueTask(InlineTask([task = std::move(task)]() mutable { task(); }), false);
        return result;
    }

    // Fire and forget: what the task throws is logged. Held by the limit. `front` puts it ahead of
    // all queued tasks, though not of the running one.
    void enqueueTask(InlineTask task, bool front) EXCLUDES(m_mutex);
    void post(InlineTask task) { enqueueTask(std::move(task), false); }

    // Fire and forget for a notice that completes earlier work: never waits for room.
    void postNotice(InlineTask task) EXCLUDES(m_mutex);

    // True when nothing is queued and every thread is idle within the time.
    bool waitIdleFor(std::chrono::milliseconds time) EXCLUDES(m_mutex);

    const std::string& getName() const { return m_name; }

 private:
    // Whether the calling thread is one of this pool's.
    bool isOwnThread() const;
    uint64_t queuedUnsafe() const REQUIRES(m_mutex);
    void throwIfStoppedUnsafe() const REQUIRES(m_mutex);
    void waitForRoomUnsafe() REQUIRES(m_mutex);
    void insert(InlineTask task, bool front, bool limited) EXCLUDES(m_mutex);

    void workerRoutine(uint64_t index);
    // The next task to run, in order; empty when the pool has stopped and all is done.
    InlineTask takeTask() EXCLUDES(m_mutex);
    InlineTask takeFromBatch() EXCLUDES(m_mutex);
    InlineTask takeFromQueueUnsafe() REQUIRES(m_mutex);
    bool waitForWorkUnsafe() REQUIRES(m_mutex);
    void run(InlineTask& task) const;

    const std::string m_name;
    const uint64_t m_threadNumber;
    const uint64_t m_maxQueueSize;

    Mutex m_mutex;
    CondVar m_idleCond;
    CondVar m_workCond;
    CondVar m_roomCond;
    bool m_stop GUARDED_BY(m_mutex) = false;
    Ring<InlineTask> m_queue GUARDED_BY(m_mutex);
    Ring<InlineTask> m_urgent GUARDED_BY(m_mutex);  // head insertions
    uint64_t m_idleThreads GUARDED_BY(m_mutex) = 0;
    uint64_t m_exitedThreads GUARDED_BY(m_mutex) = 0;
    uint64_t m_idleWaiters GUARDED_BY(m_mutex) = 0;

    // Belongs to the thread of a one-thread pool: what it took out of m_queue under one lock.
    Ring<InlineTask> m_batch;
    // Atomics: read outside the lock, so that a hand-off costs one lock and not three. A task in
    // the batch counts against the limit until it starts.
    std::atomic<uint64_t> m_batchSize{0};
    std::atomic<uint64_t> m_urgentSize{0};
    std::atomic<uint64_t> m_queueSize{0};
    std::atomic<uint64_t> m_roomWaiters{0};

    std::vector<std::thread> m_threads;
};

}  // namespace kelm
