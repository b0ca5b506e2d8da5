#include "execution/ResetQueue.h"

#include <utility>

#include "execution/ResultSink.h"
#include "protocol/src/KelmError.h"
#include "utils/Log.h"
#include "utils/Port.h"
#include "utils/SerialPool.h"

namespace kelm {

namespace {

// Places that the queue keeps after a burst.
constexpr size_t kPlacesToKeep = 1024;

}  // namespace

ResetQueue::ResetQueue(std::string target, SerialPool& pool, Reset reset,
                       std::chrono::milliseconds patience)
    : m_target(std::move(target)), m_pool(pool), m_reset(std::move(reset)), m_patience(patience) {}

void ResetQueue::enqueue(Request request) {
    if (!admit(request)) answer(KELM_ERROR_INVALID_DEVICE, std::move(request));
}

// The request is moved only if it may wait: a refused one is still the caller's to answer.
bool ResetQueue::admit(Request& request) {
    MutexLock lock(m_mutex);
    if (m_closed) return false;
    if (isStuckUnsafe()) {
        LOG_ERROR("Error: a reset of %s has not ended for over %ld ms, the next is refused",
                  m_target, m_patience.count());
        return false;
    }
    if (m_waiting.size() >= kMaxWaiting) {
        LOG_ERROR("Error: %lu resets of %s are waiting, the next is refused", kMaxWaiting,
                  m_target);
        return false;
    }
    m_waiting.pushBack(std::move(request));
    if (!m_posted) postNextUnsafe();
    return true;
}

bool ResetQueue::isStuckUnsafe() const {
    return m_started && Clock::now() - *m_started > m_patience;
}

// Behind the jobs that the pool has by now, so that a row of resets holds up each of them for one
// reset at most.
void ResetQueue::postNextUnsafe() {
    m_posted = true;
    m_pool.postNotice([this] { runNext(); });
}

void ResetQueue::runNext() {
    Request request;
    {
        MutexLock lock(m_mutex);
        m_posted = !m_waiting.empty();
        if (!m_posted) return;  // closed in the meantime
        request = m_waiting.popFront();
        m_waiting.shrinkIfEmpty(kPlacesToKeep);
        // From here until the reset ends the queue may be found stuck, see admit().
        m_started = Clock::now();
    }
    // `m_posted` stays true meanwhile: a request that comes now waits, and posts no second job.
    OwedPools::settle();
    const int result = m_reset();
    {
        MutexLock lock(m_mutex);
        m_started.reset();
        m_posted = false;
        if (!m_waiting.empty()) postNextUnsafe();
    }
    answer(result, std::move(request));
}

// Answered without the mutex, as all answers: the result sink has locks of its own.
void ResetQueue::close() {
    Ring<Request> refused;
    {
        MutexLock lock(m_mutex);
        m_closed = true;
        refused.swap(m_waiting);
    }
    while (!refused.empty()) answer(KELM_ERROR_INVALID_DEVICE, refused.popFront());
}

void ResetQueue::answer(int result, Request request) {
    Port<ResultSink>::notify<&ResultSink::enqueueSendResetDeviceResponse>(
        static_cast<KelmError>(result), std::move(request));
}

}  // namespace kelm
