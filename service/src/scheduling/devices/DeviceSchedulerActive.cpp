#include "scheduling/devices/DeviceSchedulerActive.h"

namespace kelm {

namespace {

// Requests that keep coming must not keep plans from being carried out for ever.
constexpr int kMaxDroppedPlans = 3;

}  // namespace

bool DeviceSchedulerActive::hasNewChangeRequest() {
    MutexLock lock(m_requestMutex);
    return !m_newRequests.empty();
}

// One wait and no loop: a spurious wake-up is a pass like any other.
bool DeviceSchedulerActive::waitChangeRequestUntilTimeout() {
    const auto deadline = std::chrono::steady_clock::now() + m_interval;
    MutexLock lock(m_requestMutex);
    if (!hasReasonToWakeUnsafe()) (void)m_requestCond.waitUntil(m_requestMutex, deadline);
    return !m_stop;
}

void DeviceSchedulerActive::schedule() {
    int retries = 0;
    while (waitChangeRequestUntilTimeout()) {
        updateChangeRequest();
        storeChangeRequests();
        // No plan: the requests stay in the sets of the pass, and the next wake-up plans for them
        // again. Without a new request that is up to `m_interval` later.
        if (!mapResource()) {
            restoreScene();
            continue;
        }
        // Looked at once more after the plan is made, before any device is touched: up to here a
        // pass costs only arithmetic and can be thrown away.
        if (hasNewChangeRequest()) {
            if (retries < kMaxDroppedPlans) {
                ++retries;
                restoreScene();
                continue;
            }
            retries = 0;
        }
        // Deliberate: a commit that met no new requests leaves the count as it is, so that plans
        // dropped before and after it add up to three.
        commitChangeOperation();
    }
}

}  // namespace kelm
