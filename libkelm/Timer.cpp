#include "libkelm/Timer.h"

#include <algorithm>
#include <utility>

#include "client/PendingCalls.h"
#include "utils/ThreadUtils.h"

namespace kelm::lib {

void Timer::start() {
    MutexLock lock(m_mutex);
    if (m_stopped || m_thread.joinable()) return;
    m_thread = std::thread([this] { routine(); });
}

void Timer::wakeAt(Clock::time_point time) {
    MutexLock lock(m_mutex);
    if (m_stopped || time >= m_next) return;
    m_next = time;
    m_change.notifyOne();
}

void Timer::stop() {
    std::thread thread;
    {
        MutexLock lock(m_mutex);
        m_stopped = true;
        thread.swap(m_thread);
    }
    m_change.notifyOne();
    if (thread.joinable()) thread.join();
}

void Timer::routine() {
    ThreadUtils::setName("KelmTimer");
    client::watchDeadlines();
    MutexLock lock(m_mutex);
    while (!m_stopped) {
        if (m_next == Clock::time_point::max()) {
            m_change.wait(m_mutex);
        } else {
            m_change.waitUntil(m_mutex, m_next);
        }
        const Clock::time_point now = Clock::now();
        if (m_stopped || m_next > now) continue;
        m_next = Clock::time_point::max();
        lock.unlock();
        const Clock::time_point next = m_tick(now);
        lock.lock();
        m_next = std::min(m_next, next);  // somebody may have asked for an earlier one meanwhile
    }
}

}  // namespace kelm::lib
