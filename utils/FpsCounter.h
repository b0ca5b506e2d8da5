#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#include "utils/Mutex.h"
#include "utils/Ring.h"

namespace kelm {

// "category::object::counter"; an empty part becomes "CategoryUnknown", "ObjectUnknown", "Fps".
std::string makeCounterName(const std::string& category, const std::string& object,
                            const std::string& counter);

// Events per second over a sliding window. Events of one millisecond share a stamp, so that the
// memory is bounded whatever the rate.
//
// Threads: any. Locks: its own mutex, a leaf, which an event takes once a millisecond at most.
class FpsCounter {
 public:
    using Clock = std::chrono::steady_clock;
    // The time that the counter sees; tests set their own.
    using NowFunction = Clock::time_point (*)();

    FpsCounter(const std::string& category, const std::string& object, const std::string& counter,
               NowFunction now = &Clock::now);

    // Counts one event now.
    void update() EXCLUDES(m_mutex);
    // 0 with fewer than two events in the window; infinity when all of them lie within the
    // millisecond of the call.
    float getFps() EXCLUDES(m_mutex);
    void reset() EXCLUDES(m_mutex);

    const std::string& getName() const { return m_name; }

    // Length of the window in milliseconds; the owner sets it before the first event.
    int64_t m_bufferTimeMs = 1000;

 private:
    struct Stamp {
        Clock::time_point time;
        uint32_t count = 0;
    };

    void evictUnsafe(Clock::time_point now) REQUIRES(m_mutex);
    // Adds the events that were counted without the mutex to the last stamp.
    void collectUnsafe() REQUIRES(m_mutex);

    const std::string m_name;
    const NowFunction m_now;
    // Atomics: until when events share the last stamp, and how many have done so without the mutex.
    // An event that meets the next stamp counts there, a moment late.
    std::atomic<Clock::time_point> m_sharedUntil{Clock::time_point::min()};
    std::atomic<uint32_t> m_sharing{0};

    Mutex m_mutex;
    Ring<Stamp> m_timePoints GUARDED_BY(m_mutex);  // oldest first
    uint64_t m_count GUARDED_BY(m_mutex) = 0;      // sum over the stamps
};

}  // namespace kelm
