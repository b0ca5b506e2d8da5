#include "utils/UtilizationCounter.h"

#include <algorithm>

#include "utils/FpsCounter.h"
#include "utils/Log.h"

namespace kelm {

namespace {

// From this many records on, a period joins the record before it if that one began recently.
constexpr size_t kFineRecords = 1024;
constexpr float kSharedRecordMs = 5.0f;

}  // namespace

UtilizationCounter::UtilizationCounter(const std::string& category, const std::string& object,
                                       const std::string& counter, NowFunction now)
    : m_name(makeCounterName(category, object, counter)), m_now(now) {}

float UtilizationCounter::millis(Clock::duration time) {
    return std::chrono::duration<float, std::milli>(time).count();
}

// At each start, so that the list stays short even if the utilization is never asked for.
void UtilizationCounter::dropEndedBeforeUnsafe(Clock::time_point windowStart) {
    while (!m_records.empty() && !isOpen(m_records.front())) {
        const Record& first = m_records.front();
        if (first.duration > millis(windowStart - first.startTime)) break;
        m_records.popFront();
    }
}

void UtilizationCounter::openRecordUnsafe(Clock::time_point now) {
    if (m_records.size() >= kFineRecords) {
        Record& last = m_records.back();
        // The pause between the two periods is kept out: only their own times are added up.
        if (millis(now - last.startTime) < kSharedRecordMs) {
            last = {kOpen, last.startTime, now, last.duration};
            return;
        }
    }
    m_records.pushBack({kOpen, now, now, 0.0f});
}

// The time is taken under the lock, here and below, so that it never runs backwards: a duration
// below zero would stand for a period that lasts.
void UtilizationCounter::start() {
    MutexLock lock(m_mutex);
    const Clock::time_point now = m_now();
    dropEndedBeforeUnsafe(now - std::chrono::milliseconds(m_bufferTimeMs));
    if (m_records.empty() || !isOpen(m_records.back())) {
        openRecordUnsafe(now);
    } else {
        m_records.back().startTime = m_records.back().openedAt = now;
        LOG_WARN("invoked start() successively");
    }
}

void UtilizationCounter::stop() {
    MutexLock lock(m_mutex);
    const Clock::time_point now = m_now();
    if (m_records.empty() || !isOpen(m_records.back())) {
        LOG_WARN("invoke start() first please");
        return;
    }
    Record& last = m_records.back();
    last.duration = last.before + millis(now - last.openedAt);
    last.before = 0.0f;
}

// Cuts the oldest record at the window's begin instead of dropping it: a period that is longer than
// the window would otherwise count for nothing, or for too much.
void UtilizationCounter::clipUnsafe(Clock::time_point windowStart) {
    while (!m_records.empty() && m_records.front().startTime < windowStart) {
        Record& first = m_records.front();
        if (isOpen(first)) {
            first.startTime = windowStart;
            first.openedAt = std::max(first.openedAt, windowStart);
            first.before = 0.0f;
            return;
        }
        first.duration -= millis(windowStart - first.startTime);
        first.startTime = windowStart;
        if (first.duration > 0.0f) return;
        m_records.popFront();
    }
}

// A period that lasts counts up to this moment.
float UtilizationCounter::getUtilization() {
    MutexLock lock(m_mutex);
    const Clock::time_point now = m_now();
    clipUnsafe(now - std::chrono::milliseconds(m_bufferTimeMs));
    if (m_records.empty()) return 0.0f;
    float sum = 0.0f;
    for (size_t i = 0; i < m_records.size(); ++i) {
        const Record& record = m_records.at(i);
        sum += isOpen(record) ? record.before + millis(now - record.openedAt) : record.duration;
    }
    const float result = sum / static_cast<float>(m_bufferTimeMs);
    if (m_verbose) {
        LOG_INFO("[%s] %g / %ld = %g", m_name, sum, m_bufferTimeMs, result);
    }
    return result;
}

void UtilizationCounter::reset() {
    MutexLock lock(m_mutex);
    m_records.clear();
}

}  // namespace kelm
