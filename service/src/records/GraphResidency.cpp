#include "records/GraphResidency.h"

namespace kelm {

// Sets of names: an entry that is made twice counts once, and one that is missing is no error.
void GraphResidency::appendRunningDevice(const std::string& device) {
    MutexLock lock(m_mutex);
    m_runningDevices.insert(device);
}

void GraphResidency::removeRunningDevice(const std::string& device) {
    MutexLock lock(m_mutex);
    m_runningDevices.erase(device);
}

void GraphResidency::appendCachedDevice(const std::string& device) {
    MutexLock lock(m_mutex);
    m_cachedDevices.insert(device);
}

void GraphResidency::removeCachedDevice(const std::string& device) {
    MutexLock lock(m_mutex);
    m_cachedDevices.erase(device);
}

int32_t GraphResidency::getRunningDeviceNum() {
    MutexLock lock(m_mutex);
    return static_cast<int32_t>(m_runningDevices.size());
}

int32_t GraphResidency::getCachedDeviceNum() {
    MutexLock lock(m_mutex);
    return static_cast<int32_t>(m_cachedDevices.size());
}

uint32_t GraphResidency::getMemReq() {
    MutexLock lock(m_mutex);
    return m_memReq;
}

void GraphResidency::setMemReq(uint32_t megabytes) {
    MutexLock lock(m_mutex);
    m_memReq = megabytes;
}

void GraphResidency::setMaxGraphNumPerDevice(int32_t number) {
    if (number < 1) return;
    MutexLock lock(m_mutex);
    m_maxGraphNumPerDevice = number;
}

int32_t GraphResidency::getMaxGraphNumPerDevice() {
    MutexLock lock(m_mutex);
    return m_maxGraphNumPerDevice;
}

void GraphResidency::increaseLoadFailCount() {
    MutexLock lock(m_mutex);
    ++m_loadFailCount;
}

uint32_t GraphResidency::getLoadFailCount() {
    MutexLock lock(m_mutex);
    return m_loadFailCount;
}

// Called once a pass by the scheduler. The time is for reports, so it is the wall clock's.
void GraphResidency::setPendingState(bool pending) {
    MutexLock lock(m_mutex);
    // The pass that makes it pending sets the start; only those after it count as cycles.
    if (!pending) {
        m_outCycleNum = 0;
    } else if (!m_isPending) {
        m_startPendingTime = std::chrono::system_clock::now();
    } else {
        ++m_outCycleNum;
    }
    m_isPending = pending;
}

bool GraphResidency::isPending() {
    MutexLock lock(m_mutex);
    return m_isPending;
}

bool GraphResidency::getStartPendingTime(TimePoint& time) {
    MutexLock lock(m_mutex);
    if (!m_isPending) return false;
    time = m_startPendingTime;
    return true;
}

uint32_t GraphResidency::getOutCycleNum() {
    MutexLock lock(m_mutex);
    return m_outCycleNum;
}

}  // namespace kelm
