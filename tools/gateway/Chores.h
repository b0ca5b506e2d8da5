#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <thread>
#include <utility>

#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm::gateway {

// A thread for what may wait for the service, as cancels and frees, which neither an event loop nor
// a callback of libkelm may do. In order; the destructor does what is left, and waits for what is
// owed.
//
// Threads: any. Owns: the thread. Locks: m_mutex, a leaf.
class Chores : public NonCopyable {
 public:
    Chores();
    ~Chores();
    void add(std::function<void()> chore) EXCLUDES(m_mutex) { put(std::move(chore), 0); }
    // Promises one chore that will come by addOwed().
    void owe() EXCLUDES(m_mutex);
    void addOwed(std::function<void()> chore) EXCLUDES(m_mutex) { put(std::move(chore), 1); }

 private:
    void put(std::function<void()> chore, size_t paid) EXCLUDES(m_mutex);
    void run() EXCLUDES(m_mutex);

    Mutex m_mutex;
    CondVar m_changed;
    std::deque<std::function<void()>> m_waiting GUARDED_BY(m_mutex);
    size_t m_owed GUARDED_BY(m_mutex) = 0;
    bool m_isEnding GUARDED_BY(m_mutex) = false;
    std::thread m_thread;
};

}  // namespace kelm::gateway
