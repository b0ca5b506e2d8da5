#pragma once

#include "utils/Mutex.h"

namespace kelm {

// A counting semaphore within the process. Not for signal handlers: it takes a mutex.
//
// Threads: any.
class Semaphore {
 public:
    // The first argument has no effect; the second is the start value, which may be negative.
    Semaphore(int ignored, int initial);

    void post() EXCLUDES(m_mutex);
    // Waits until the value is positive and takes one.
    void wait() EXCLUDES(m_mutex);
    bool tryWait() EXCLUDES(m_mutex);
    // False when the time is up first.
    bool waitFor(long timeoutMillisec) EXCLUDES(m_mutex);
    int getValue() EXCLUDES(m_mutex);
    void resetValue(int value) EXCLUDES(m_mutex);

 private:
    Mutex m_mutex;
    int m_value GUARDED_BY(m_mutex);
    CondVar m_condition;
};

}  // namespace kelm
