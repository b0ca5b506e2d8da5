#pragma once

#include <chrono>
#include <cstdint>
#include <string>

#include "utils/Mutex.h"
#include "utils/Ring.h"

namespace kelm {

// The busy share of a sliding window of five seconds. A busy period is bracketed by start() and
// stop(). At a high rate, periods that follow each other closely share a record.
//
// Threads: any. Locks: its own mutex, a leaf.
class UtilizationCounter {
 public:
    using Clock = std::chrono::steady_clock;
    using NowFunction = Clock::time_point (*)();

    UtilizationCounter(const std::string& category, const std::string& object,
                       const std::string& counter, NowFunction now = &Clock::now);

    void start() EXCLUDES(m_mutex);
    void stop() EXCLUDES(m_mutex);
    // 0 to 1.
    float getUtilization() EXCLUDES(m_mutex);
    void reset() EXCLUDES(m_mutex);

 private:
    struct Record {
        float duration = kOpen;  // milliseconds; kOpen while the busy period lasts
        Clock::time_point startTime;
        Clock::time_point openedAt;  // start of the period that lasts
        float before = 0.0f;         // milliseconds of the periods that share this record with it
    };
    static constexpr float kOpen = -1.0f;

    static float millis(Clock::duration time);
    static bool isOpen(const Record& record) { return record.duration < 0.0f; }
    void dropEndedBeforeUnsafe(Clock::time_point windowStart) REQUIRES(m_mutex);
    void openRecordUnsafe(Clock::time_point now) REQUIRES(m_mutex);
    void clipUnsafe(Clock::time_point windowStart) REQUIRES(m_mutex);

    const std::string m_name;
    const NowFunction m_now;
    const int64_t m_bufferTimeMs = 5000;
    Mutex m_mutex;
    bool m_verbose GUARDED_BY(m_mutex) = false;
    Ring<Record> m_records GUARDED_BY(m_mutex);  // oldest first
};

}  // namespace kelm
