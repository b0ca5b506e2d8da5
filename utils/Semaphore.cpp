#include "utils/Semaphore.h"

#include <chrono>

namespace kelm {

Semaphore::Semaphore(int, int initial) : m_value(initial) {}

void Semaphore::post() {
    MutexLock lock(m_mutex);
    ++m_value;
    // Under the lock: a waiter may destroy the semaphore as soon as it has the lock.
    m_condition.notifyOne();
}

void Semaphore::wait() {
    MutexLock lock(m_mutex);
    while (m_value <= 0) m_condition.wait(m_mutex);
    --m_value;
}

bool Semaphore::tryWait() {
    MutexLock lock(m_mutex);
    if (m_value <= 0) return false;
    --m_value;
    return true;
}

// Looks once more at the deadline: a post that came just before it must not be lost.
bool Semaphore::waitFor(long timeoutMillisec) {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMillisec);
    MutexLock lock(m_mutex);
    while (m_value <= 0) {
        if (!m_condition.waitUntil(m_mutex, deadline) && m_value <= 0) return false;
    }
    --m_value;
    return true;
}

int Semaphore::getValue() {
    MutexLock lock(m_mutex);
    return m_value;
}

// All waiters: the new value may serve more than one.
void Semaphore::resetValue(int value) {
    MutexLock lock(m_mutex);
    m_value = value;
    if (m_value > 0) m_condition.notifyAll();
}

}  // namespace kelm
