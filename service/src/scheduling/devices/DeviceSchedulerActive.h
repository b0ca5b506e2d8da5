#pragma once

#include <chrono>

#include "scheduling/devices/DeviceSchedulerBase.h"

namespace kelm {

// A device scheduler that also wakes by itself, so that its plan follows the demand of running
// graphs. A plan that new requests overtake is thrown away and remade with them, so that a burst
// becomes one pass; at most three in a row.
//
// Threads, owns, locks: as the base.
class DeviceSchedulerActive : public DeviceSchedulerBase {
 public:
    static constexpr std::chrono::nanoseconds kInterval{5'000'000'000};

    // A pass comes at the latest `interval` after the one before.
    explicit DeviceSchedulerActive(const char* name, std::chrono::nanoseconds interval = kInterval)
        : DeviceSchedulerBase(name), m_interval(interval) {}

    bool hasNewChangeRequest() EXCLUDES(m_requestMutex);

 protected:
    // Turns the sets into operations. False: no plan; it is tried again in the next pass.
    virtual bool mapResource() REQUIRES(m_onSchedulingThread) = 0;
    // Undoes what mapResource() did, so that the next pass can plan for the same sets.
    virtual void restoreScene() REQUIRES(m_onSchedulingThread) = 0;

    void schedule() REQUIRES(m_onSchedulingThread) override;
    // False when the thread is to end.
    virtual bool waitChangeRequestUntilTimeout() REQUIRES(m_onSchedulingThread)
        EXCLUDES(m_requestMutex);

 private:
    const std::chrono::nanoseconds m_interval;
};

}  // namespace kelm
