#include "utils/ThreadPool.h"

#include <stdexcept>
#include <utility>

#include "utils/Chaos.h"
#include "utils/ThreadUtils.h"

namespace kelm {

namespace {

// Which pool the calling thread works for.
thread_local const ThreadPool* t_pool = nullptr;

}  // namespace

ThreadPool::ThreadPool(std::string name, uint64_t threadNumber, uint64_t maxQueueSize)
    : m_name(std::move(name)), m_maxQueueSize(maxQueueSize) {
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
        m_workCond.notifyAll();
        m_roomCond.notifyAll();
    }
    for (std::thread& thread : m_threads) thread.join();
}

void ThreadPool::throwIfStoppedUnsafe() const {
    if (m_stop) throw std::runtime_error("failed to enqueue, threadPool is stopped");
}

void ThreadPool::insert(InlineTask task, bool limited) {
    mayBeHeldUp();
    MutexLock lock(m_mutex);
    throwIfStoppedUnsafe();
    // A producer on one of the pool's own threads could wait for itself.
    while (limited && t_pool != this && m_queue.size() >= m_maxQueueSize) {
        m_roomCond.wait(m_mutex);
        throwIfStoppedUnsafe();
    }
    m_queue.pushBack(std::move(task));
    m_workCond.notifyOne();
}

bool ThreadPool::waitIdleFor(std::chrono::milliseconds time) {
    const auto deadline = std::chrono::steady_clock::now() + time;
    MutexLock lock(m_mutex);
    while (!m_queue.empty() || m_running > 0) {
        if (!m_idleCond.waitUntil(m_mutex, deadline)) break;
    }
    return m_queue.empty() && m_running == 0;
}

void ThreadPool::workerRoutine(uint64_t index) {
    t_pool = this;
    const std::string threadName = m_name + "T" + std::to_string(index);
    ThreadUtils::setName(threadName);
    ThreadUtils::saveThreadInfo(threadName);
    MutexLock lock(m_mutex);
    for (;;) {
        while (!m_stop && m_queue.empty()) m_workCond.wait(m_mutex);
        if (m_queue.empty()) return;
        InlineTask task = m_queue.popFront();
        m_roomCond.notifyOne();
        ++m_running;
        lock.unlock();
        task.runLogged(m_name);
        task.reset();  // what it captured must not live until the next task comes
        lock.lock();
        --m_running;
        m_idleCond.notifyAll();
    }
}

}  // namespace kelm
