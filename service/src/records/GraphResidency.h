#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <unordered_set>

#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm {

// Where a graph is and what it takes to have it there: the devices that run or hold it, its
// memory, and how long it has been waiting for a device that it does not get.
//
// Threads: any. Locks: m_mutex is a leaf.
class GraphResidency : public NonCopyable {
 public:
    using TimePoint = std::chrono::system_clock::time_point;

    // Names of the devices that run the graph, and of those that hold it.
    void appendRunningDevice(const std::string& device) EXCLUDES(m_mutex);
    void removeRunningDevice(const std::string& device) EXCLUDES(m_mutex);
    void appendCachedDevice(const std::string& device) EXCLUDES(m_mutex);
    void removeCachedDevice(const std::string& device) EXCLUDES(m_mutex);
    int32_t getRunningDeviceNum() EXCLUDES(m_mutex);
    int32_t getCachedDeviceNum() EXCLUDES(m_mutex);

    // MB of device memory: at first the size of the blob, then what the first load took.
    uint32_t getMemReq() EXCLUDES(m_mutex);
    void setMemReq(uint32_t megabytes) EXCLUDES(m_mutex);
    // Values below 1 are ignored.
    void setMaxGraphNumPerDevice(int32_t number) EXCLUDES(m_mutex);
    int32_t getMaxGraphNumPerDevice() EXCLUDES(m_mutex);
    void increaseLoadFailCount() EXCLUDES(m_mutex);
    uint32_t getLoadFailCount() EXCLUDES(m_mutex);
    // Seconds that its last load took; 0 before the first.
    void setLoadTime(double seconds) { m_loadTime.store(seconds); }
    double getLoadTime() const { return m_loadTime.load(); }

    // A graph is pending from the pass of its scheduler that gives it no device although it asks
    // for one, until a pass gives it one; each further pass without a device is one cycle out.
    void setPendingState(bool pending) EXCLUDES(m_mutex);
    bool isPending() EXCLUDES(m_mutex);
    // If pending, stores since when and returns true.
    bool getStartPendingTime(TimePoint& time) EXCLUDES(m_mutex);
    uint32_t getOutCycleNum() EXCLUDES(m_mutex);

 protected:
    GraphResidency() = default;
    ~GraphResidency() = default;

 private:
    std::atomic<double> m_loadTime{0.0};  // atomic: a figure by itself

    Mutex m_mutex;
    std::unordered_set<std::string> m_runningDevices GUARDED_BY(m_mutex);
    std::unordered_set<std::string> m_cachedDevices GUARDED_BY(m_mutex);
    int32_t m_maxGraphNumPerDevice GUARDED_BY(m_mutex) = 1;
    uint32_t m_memReq GUARDED_BY(m_mutex) = 0;
    uint32_t m_loadFailCount GUARDED_BY(m_mutex) = 0;
    bool m_isPending GUARDED_BY(m_mutex) = false;
    uint32_t m_outCycleNum GUARDED_BY(m_mutex) = 0;
    TimePoint m_startPendingTime GUARDED_BY(m_mutex);
};

}  // namespace kelm
