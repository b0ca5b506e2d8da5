#pragma once

#include <chrono>
#include <functional>
#include <thread>

#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm {

// SIGUSR1 as an event: the handler, which may interrupt a thread that holds any lock, only sets a
// flag and writes to a descriptor; a thread of this object does the rest. One at a time.
//
// Threads: "KelmSignal" runs the callback; the operations may come from any thread.
// Locks: m_mutex is a leaf.
class ExitSignal : public NonCopyable {
 public:
    // Installs the handler. The callback runs once for each signal that is noticed.
    explicit ExitSignal(std::function<void()> onSignal);
    // From here the signal is ignored.
    ~ExitSignal();

    // Whether the signal has come.
    bool isSet() const;
    // Returns early once the signal has come.
    void sleepFor(std::chrono::seconds time) EXCLUDES(m_mutex);

 private:
    void watchRoutine() EXCLUDES(m_mutex);

    const std::function<void()> m_onSignal;
    Mutex m_mutex;
    CondVar m_changed;
    bool m_noticed GUARDED_BY(m_mutex) = false;
    bool m_stop GUARDED_BY(m_mutex) = false;
    std::thread m_thread;
};

}  // namespace kelm
