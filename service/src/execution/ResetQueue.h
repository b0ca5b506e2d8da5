#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>

#include "records/Request.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"
#include "utils/Ring.h"

namespace kelm {

class SerialPool;

// The resets of one target, a device or all of them: done one after the other on a pool of one
// thread, each answered to its client through the result sink. Other jobs of the pool get their
// turn between two resets.
//
// A request is refused behind a reset that has been under way for longer than `patience`, since
// that one may never end. Otherwise it waits, whatever their number, but for a bound on memory.
//
// Threads: any; the resets run on the pool's. Owns: the requests that wait, until their answers.
// Borrows the pool, which ends before this does and after close().
// Locks: m_mutex, then the pool's; held across neither a reset nor an answer.
class ResetQueue : public NonCopyable {
 public:
    static constexpr std::chrono::milliseconds kPatience{1000};
    // Some 600 bytes for each, so 12 MB. No client has a use for that many: more is a flood.
    static constexpr size_t kMaxWaiting = 20000;
    // Gives the KelmError or the library's status.
    using Reset = std::function<int()>;

    // `target` stands for what is reset in the log.
    ResetQueue(std::string target, SerialPool& pool, Reset reset,
               std::chrono::milliseconds patience = kPatience);

    void enqueue(Request request) EXCLUDES(m_mutex);
    // Refuses what waits and what comes. The reset that is under way is still answered.
    void close() EXCLUDES(m_mutex);

 private:
    using Clock = std::chrono::steady_clock;

    // Takes the request if it may wait.
    bool admit(Request& request) EXCLUDES(m_mutex);
    bool isStuckUnsafe() const REQUIRES(m_mutex);
    void postNextUnsafe() REQUIRES(m_mutex);
    // On the pool.
    void runNext() EXCLUDES(m_mutex);
    static void answer(int result, Request request);

    const std::string m_target;
    SerialPool& m_pool;
    const Reset m_reset;
    const std::chrono::milliseconds m_patience;

    Mutex m_mutex;
    bool m_closed GUARDED_BY(m_mutex) = false;
    bool m_posted GUARDED_BY(m_mutex) = false;                       // the pool has a job of this
    std::optional<Clock::time_point> m_started GUARDED_BY(m_mutex);  // of the reset under way
    Ring<Request> m_waiting GUARDED_BY(m_mutex);
};

}  // namespace kelm
