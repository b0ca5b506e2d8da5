#pragma once

#include <chrono>

#include "utils/Mutex.h"

namespace kelm::ctl {

// Ends a thread that does something at an interval, also while it waits for the next time.
//
// Threads: any. Locks: m_mutex, a leaf.
class StopSignal {
 public:
    using Clock = std::chrono::steady_clock;

    void stop() EXCLUDES(m_mutex) {
        {
            MutexLock lock(m_mutex);
            m_isStopped = true;
        }
        m_stopped.notifyAll();
    }
    bool isStopped() EXCLUDES(m_mutex) {
        MutexLock lock(m_mutex);
        return m_isStopped;
    }
    // False when told to stop.
    bool waitUntil(Clock::time_point end) EXCLUDES(m_mutex) {
        MutexLock lock(m_mutex);
        while (!m_isStopped && m_stopped.waitUntil(m_mutex, end)) {
        }
        return !m_isStopped;
    }

 private:
    Mutex m_mutex;
    CondVar m_stopped;
    bool m_isStopped GUARDED_BY(m_mutex) = false;
};

}  // namespace kelm::ctl
