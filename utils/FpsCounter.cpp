#include "utils/FpsCounter.h"

#include <algorithm>

namespace kelm {

namespace {

// From this many stamps on, events share a stamp over a longer time than a millisecond, so that a
// window of any length costs some tens of kilobytes at the most.
constexpr size_t kFineStamps = 1024;

int64_t wholeMillis(FpsCounter::Clock::duration time) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(time).count();
}

std::string orDefault(const std::string& text, const char* fallback) {
    return text.empty() ? fallback : text;
}

}  // namespace

std::string makeCounterName(const std::string& category, const std::string& object,
                            const std::string& counter) {
    return orDefault(category, "CategoryUnknown") + "::" + orDefault(object, "ObjectUnknown") +
           "::" + orDefault(counter, "Fps");
}

FpsCounter::FpsCounter(const std::string& category, const std::string& object,
                       const std::string& counter, NowFunction now)
    : m_name(makeCounterName(category, object, counter)), m_now(now) {}

// Events that share a stamp leave together with the first of them.
void FpsCounter::evictUnsafe(Clock::time_point now) {
    while (!m_timePoints.empty() &&
           wholeMillis(now - m_timePoints.front().time) >= m_bufferTimeMs) {
        m_count -= m_timePoints.popFront().count;
    }
}

// Old stamps leave here, too: the list stays short even if the rate is never asked for.
void FpsCounter::update() {
    const Clock::time_point now = m_now();
    if (now < m_sharedUntil.load()) {
        m_sharing.fetch_add(1);
        return;
    }
    MutexLock lock(m_mutex);
    collectUnsafe();
    evictUnsafe(now);
    ++m_count;
    // Another thread may have made the stamp meanwhile.
    if (now < m_sharedUntil.load() && !m_timePoints.empty()) {
        ++m_timePoints.back().count;
        return;
    }
    m_timePoints.pushBack({now, 1});
    // Below that number of stamps a stamp is one millisecond, see kFineStamps.
    const bool fine = m_timePoints.size() <= kFineStamps;
    const int64_t shared = fine ? 1 : std::max<int64_t>(1, m_bufferTimeMs / int64_t{kFineStamps});
    m_sharedUntil.store(now + std::chrono::milliseconds(shared));
}

void FpsCounter::collectUnsafe() {
    if (m_timePoints.empty()) return;
    const uint32_t sharing = m_sharing.exchange(0);
    m_timePoints.back().count += sharing;
    m_count += sharing;
}

float FpsCounter::getFps() {
    MutexLock lock(m_mutex);
    const Clock::time_point now = m_now();  // under the lock: never before a stamp
    collectUnsafe();
    evictUnsafe(now);
    if (m_count < 2) return 0.0f;
    const int64_t age = wholeMillis(now - m_timePoints.front().time);
    // Deliberate: an age of 0 gives infinity, which the callers take as it comes.
    return static_cast<float>(m_count) * 1000.0f /
           static_cast<float>(std::min(m_bufferTimeMs, age));
}

void FpsCounter::reset() {
    MutexLock lock(m_mutex);
    m_sharedUntil.store(Clock::time_point::min());
    m_sharing.store(0);
    m_timePoints.clear();
    m_count = 0;
}

}  // namespace kelm
