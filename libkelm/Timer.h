#pragma once

#include <chrono>
#include <functional>
#include <thread>

#include "utils/Mutex.h"

namespace kelm::lib {

// Calls a function at the times that it asks for, on a thread "KelmTimer".
//
// Threads: any, but stop() once, by the owner. Owns: the thread.
// Locks: m_mutex, a leaf; not held in the function.
class Timer {
 public:
    using Clock = std::chrono::steady_clock;
    // Gets the time and returns that of its next call; max() for none.
    using Tick = std::function<Clock::time_point(Clock::time_point now)>;

    explicit Timer(Tick tick) : m_tick(std::move(tick)) {}
    ~Timer() { stop(); }
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    // Starts the thread, unless it is there or was stopped before. Raises std::system_error if
    // there is none to be had.
    void start() EXCLUDES(m_mutex);
    // At this time at the latest, unless stopped before. After start(), so that it never fails:
    // whoever asks has taken a task already.
    void wakeAt(Clock::time_point time) EXCLUDES(m_mutex);
    // Waits for a call in progress; none comes afterwards. Not from the function.
    void stop() EXCLUDES(m_mutex);

 private:
    void routine() EXCLUDES(m_mutex);

    const Tick m_tick;
    Mutex m_mutex;
    CondVar m_change;
    Clock::time_point m_next GUARDED_BY(m_mutex) = Clock::time_point::max();
    bool m_stopped GUARDED_BY(m_mutex) = false;
    std::thread m_thread GUARDED_BY(m_mutex);
};

}  // namespace kelm::lib
