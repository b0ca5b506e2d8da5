#include "managers/Backlog.h"

namespace kelm {

void Backlog::waitForRoom() {
    if (!isFull()) return;
    MutexLock lock(m_mutex);
    // Raised before isFull() is read: a remove() after that sees the waiter and wakes it.
    m_waiters.fetch_add(1);
    while (isFull()) m_roomCond.wait(m_mutex);
    m_waiters.fetch_sub(1);
}

void Backlog::add(uint64_t bytes) {
    const uint64_t waiting = m_bytes.fetch_add(bytes) + bytes;
    if (waiting > kMaxBytes / 4 && !m_wasLarge.load()) m_wasLarge.store(true);
    m_messages.fetch_add(1);
}

void Backlog::remove(uint64_t bytes) {
    m_bytes.fetch_sub(bytes);
    m_messages.fetch_sub(1);
    if (m_waiters.load() > 0) {
        MutexLock lock(m_mutex);
        m_roomCond.notifyAll();
    }
}

}  // namespace kelm
