#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "utils/InlineTask.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm {

// Detached threads that can be waited for with a limit, as a std::thread cannot: a call of a device
// may never return, and the end of the service must not depend on it.
//
// Threads: any. A body may use what its starter owns, so that must stay until waitEnd() is true.
// Locks: m_mutex is a leaf.
class BoundedThreads : public NonCopyable {
 public:
    using Deadline = std::chrono::steady_clock::time_point;

    // `owner` is the device manager that the log names.
    explicit BoundedThreads(const std::string& owner) : m_owner(owner) {}

    // Runs the body on a thread of its own. False, with an ERROR line, if the system has none left:
    // then the body is destroyed here, without having run.
    bool start(InlineTask body) EXCLUDES(m_mutex);
    // True once no thread is left, false at the deadline.
    bool waitEnd(Deadline deadline) EXCLUDES(m_mutex);

 private:
    void end() EXCLUDES(m_mutex);

    const std::string m_owner;
    Mutex m_mutex;
    CondVar m_ended;
    uint64_t m_count GUARDED_BY(m_mutex) = 0;  // started and not ended
};

}  // namespace kelm
