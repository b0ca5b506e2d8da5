#include "utils/ThreadPool.h"

#include <exception>
#include <stdexcept>

#include "utils/Log.h"
#include "utils/ThreadUtils.h"

namespace kelm {

namespace {

// Which pool the calling thread works for.
thread_local const ThreadPool* t_pool = nullptr;

// A worker looks again this often before it sleeps: waking it costs more than a yield.
constexpr int kLooksBeforeSleep = 2;
// Slots that an empty queue keeps; a burst beyond gives its memory back.
constexpr size_t kSlotsToKeep = 1024;

}  // namespace

ThreadPool::ThreadPool(std::string name, uint64_t threadNumber, uint64_t maxQueueSize)
    : m_name(std::move(name)), m_threadNumber(threadNumber), m_maxQueueSize(maxQueueSize) {
    m_threads.reserve(threadNumber);
    for (uint64_t index = 0; index < threadNumber; ++index) {
        m_threads.emplace_back([this, index] { workerRoutine(index); });
    }
}

// The threads run what is queued before they end: a notice that was posted is always done.
ThreadPool::~ThreadPool() {
    {
        MutexLock lock(m_mutex);
        m_stop = true;
    }
    m_workCond.notifyAll();
    for (std::thread& thread : m_threads) thread.join();
}

// A producer on one of the pool's own threads is never held up: it would wait for itself.
bool ThreadPool::isOwnThread() const { return t_pool == this; }

// A batch that a single worker has taken out still counts against the limit, though it is no longer
// in the queue: otherwise the queue could hold twice its size.
uint64_t ThreadPool::queuedUnsafe() const {
    return m_queue.size() + m_urgent.size() + m_batchSize.load();
}

void ThreadPool::throwIfStoppedUnsafe() const {
    if (m_stop) throw std::runtime_error("failed to enqueue, threadPool is stopped");
}

void ThreadPool::waitForRoomUnsafe() {
    // Raised before the size is read: a worker that takes a task in between then sees a waiter and
    // notifies. The other order would lose the notice.
    m_roomWaiters.fetch_add(1);
    while (!m_stop && queuedUnsafe() >= m_maxQueueSize) m_roomCond.wait(m_mutex);
    m_roomWaiters.fetch_sub(1);
    throwIfStoppedUnsafe();
}

// Woken after the mutex is free, or the worker would wake up only to wait for it. A worker that is
// not idle looks into the queue by itself.
void ThreadPool::insert(InlineTask task, bool front, bool limited) {
    bool wake = false;
    {
        MutexLock lock(m_mutex);
        throwIfStoppedUnsafe();
        if (limited && queuedUnsafe() >= m_maxQueueSize && !isOwnThread()) waitForRoomUnsafe();
        if (front) {
            m_urgent.pushFront(std::move(task));
            m_urgentSize.store(m_urgent.size());
        } else {
            m_queue.pushBack(std::move(task));
            m_queueSize.store(m_queue.size(), std::memory_order_relaxed);
        }
        wake = m_idleThreads > 0;
    }
    if (wake) m_workCond.notifyOne();
}

void ThreadPool::enqueueTask(InlineTask task, bool front) { insert(std::move(task), front, true); }

void ThreadPool::postNotice(InlineTask task) { insert(std::move(task), false, false); }

// Counts the threads that sleep and those that have ended; a thread between two tasks is neither.
bool ThreadPool::waitIdleFor(std::chrono::milliseconds time) {
    const auto deadline = std::chrono::steady_clock::now() + time;
    MutexLock lock(m_mutex);
    ++m_idleWaiters;
    bool timely = true;
    const auto idle = [this]() REQUIRES(m_mutex) {
        return queuedUnsafe() == 0 && m_idleThreads + m_exitedThreads == m_threadNumber;
    };
    while (!idle() && timely) timely = m_idleCond.waitUntil(m_mutex, deadline);
    --m_idleWaiters;
    return idle();
}

void ThreadPool::workerRoutine(uint64_t index) {
    t_pool = this;
    const std::string threadName = m_name + "T" + std::to_string(index);
    ThreadUtils::setName(threadName);
    ThreadUtils::saveThreadInfo(threadName);
    for (InlineTask task = takeTask(); task; task = takeTask()) {
        run(task);
        task.reset();  // what it captured must not live until the next task comes
    }
}

void ThreadPool::run(InlineTask& task) const {
    try {
        task();
    } catch (const std::exception& error) {
        LOG_ERROR("Error: a task of pool %s ended with an exception: %s", m_name, error.what());
    } catch (...) {
        LOG_ERROR("Error: a task of pool %s ended with an unknown exception", m_name);
    }
}

InlineTask ThreadPool::takeTask() {
    // The batch belongs to the single worker: no lock, unless an urgent task is to overtake it.
    if (!m_batch.empty() && m_urgentSize.load() == 0) return takeFromBatch();
    const auto nothingQueued = [this] {
        return m_queueSize.load(std::memory_order_relaxed) == 0 && m_urgentSize.load() == 0;
    };
    // Tasks come in bursts: a few looks cost less than falling asleep and being woken.
    for (int look = 0; look < kLooksBeforeSleep && nothingQueued(); ++look) {
        std::this_thread::yield();
    }
    MutexLock lock(m_mutex);
    if (m_batch.empty() && !waitForWorkUnsafe()) return {};
    return takeFromQueueUnsafe();
}

// Waits until something is queued. False when the pool has stopped and nothing is left.
bool ThreadPool::waitForWorkUnsafe() {
    while (!m_stop && m_queue.empty() && m_urgent.empty()) {
        ++m_idleThreads;
        if (m_idleWaiters > 0) m_idleCond.notifyAll();
        m_workCond.wait(m_mutex);
        --m_idleThreads;
    }
    if (!m_queue.empty() || !m_urgent.empty()) return true;
    ++m_exitedThreads;
    if (m_idleWaiters > 0) m_idleCond.notifyAll();
    return false;
}

InlineTask ThreadPool::takeFromQueueUnsafe() {
    InlineTask task;
    if (!m_urgent.empty()) {
        task = m_urgent.popFront();
        m_urgentSize.store(m_urgent.size());
    } else {
        task = m_queue.popFront();
        // A single worker takes all that is queued at once: one lock for many tasks. With several
        // workers that would take work away from those that are idle.
        if (m_threadNumber == 1) {
            m_batch.shrinkIfEmpty(kSlotsToKeep);
            m_batch.swap(m_queue);
            m_batchSize.store(m_batch.size());
        }
        m_queueSize.store(m_queue.size(), std::memory_order_relaxed);
    }
    if (m_roomWaiters.load() > 0) m_roomCond.notifyOne();
    return task;
}

InlineTask ThreadPool::takeFromBatch() {
    InlineTask task = m_batch.popFront();
    m_batchSize.fetch_sub(1);
    if (m_roomWaiters.load() > 0) {
        // Under the mutex, or the notice could fall between a producer's test and its wait.
        MutexLock lock(m_mutex);
        m_roomCond.notifyOne();
    }
    return task;
}

}  // namespace kelm
