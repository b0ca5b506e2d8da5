#include "managers/Backlog.h"

namespace kelm {

void Backlog::add(uint64_t bytes) {
    if (isFull()) {
        MutexLock lock(m_mutex);
        // The count goes up before the look: whoever removes in between sees it.
        m_waiters.fetch_add(1);
        while (isFull()) m_roomCond.wait(m_mutex);
        m_waiters.fetch_sub(1);
    }
    m_bytes.fetch_add(bytes);
    m_messages.fetch_add(1);
}

bool Backlog::remove(uint64_t bytes) {
    m_bytes.fetch_sub(bytes);
    const bool last = m_messages.fetch_sub(1) == 1;
    if (m_waiters.load() > 0) {
        MutexLock lock(m_mutex);
        m_roomCond.notifyAll();
    }
    return last;
}

}  // namespace kelm
