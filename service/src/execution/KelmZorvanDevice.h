#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "execution/KelmDeviceBase.h"
#include "execution/TevoDevice.h"
#include "execution/TevoGraphCache.h"
#include "execution/TevoGraphLoader.h"
#include "utils/StepTrace.h"

namespace kelm {

// A Zorvan accelerator, driven through its access library: the root, which has the library's handle
// of the device and the graphs on it, reads its temperature and resets it. Tasks run on its clones.
//
// Once the hardware has been reset the device object never recovers: every operation answers
// KELM_ERROR_DEVICE_FAILED until the bus has taken the device away and brought it back.
//
// Threads: as the base, and any clone's.
// Owns: the handles of device and graphs, until its destruction at the latest.
// Locks: the clone's m_deviceMutex, then m_graphMutex, then the cache's. m_graphMutex is held
// across the library's graph calls, which must not overlap on a device, and m_thermalMutex across
// one reading.
class KelmZorvanDevice final : public KelmDeviceBase {
 public:
    explicit KelmZorvanDevice(const std::string& name);
    ~KelmZorvanDevice() override;

    // Once, before a device is opened. Without the library it only logs.
    static void initPlatform();
    [[nodiscard]] static int resetAllDevices();
    // Reads a size out of a graph's blob; needs no device.
    [[nodiscard]] static int getGraphInfo(const char* data, size_t size, KelmGraphInfo what,
                                          size_t& result);

    using KelmDeviceBase::openDevice;
    std::unique_ptr<KelmDeviceBase> clone() override;
    bool isHardwareError(int error) override { return TevoDevice::isHardwareError(error); }
    // Elements of each queue of a graph that is allocated from now on; before the first clone.
    void setFifoCapacity(unsigned int capacity) override { m_loader.setFifoCapacity(capacity); }
    // Ignores what is not above 0; before the first clone.
    void setMaxCacheGraphNumber(int number) override;
    int updateThermal() override;
    std::vector<KelmGraph*> getCachedGraphList() override { return m_cache.getGraphs(); }
    std::vector<std::string> getCachedGraphNames() override { return m_cache.getNames(); }
    void forgetGraphs() override { m_cache.forgetAll(); }

    // For the clones. Any thread.
    TevoDevice& getTevoDevice() { return m_device; }
    bool usesSystemTensor() const { return m_useSystemTensor; }
    std::optional<TevoQueues> getTevoGraphInfo(KelmGraph* graph) { return m_cache.find(graph); }
    int loadGraph(KelmGraph* graph) EXCLUDES(m_graphMutex);
    int unloadGraph(KelmGraph* graph, bool keepCached) EXCLUDES(m_graphMutex);
    // Unloads and loads a graph on which no task runs.
    int renewGraph(KelmGraph* graph) EXCLUDES(m_graphMutex);
    // Keeps the graph's handles, and no pointer to it.
    void dropGraph(KelmGraph* graph) { m_cache.forget(graph); }
    // Reads the temperature behind a result, at most once an interval.
    int updateThermalIfDue() EXCLUDES(m_thermalMutex);
    int hardwareResetDeviceCore() override;

 protected:
    int openDevice(const char* name) override REQUIRES(m_deviceMutex);
    int closeDeviceImpl() override REQUIRES(m_deviceMutex);
    int allocateGraphImpl(KelmGraph* graph) override REQUIRES(m_deviceMutex);
    int deallocateGraphImpl(KelmGraph* graph, bool keepCached) override REQUIRES(m_deviceMutex);
    void forgetGraphImpl(KelmGraph* graph) override REQUIRES(m_deviceMutex);
    // Tasks run on clones.
    int loadTensorImpl(KelmTask* task) override;
    int getResultImpl(KelmTask* task) override;

 private:
    using SteadyTime = std::chrono::steady_clock::time_point;

    int getMissingGraphError() const;
    // Evicts at most one graph. `required` in MB.
    void deallocOldestInactiveGraphIfFull(unsigned int required) REQUIRES(m_graphMutex);

    TevoDevice m_device;
    const StepTrace m_trace;
    const bool m_useSystemTensor;
    const int m_updateThermalInterval;  // milliseconds
    int m_maxCachedGraphNum = 4;        // set before the first clone, then fixed
    // Atomic: the first of the threads that fail resets the hardware.
    std::atomic<bool> m_resetDone{false};

    Mutex m_graphMutex ACQUIRED_AFTER(m_deviceMutex);
    TevoGraphLoader m_loader;  // its calls are made under m_graphMutex
    TevoGraphCache m_cache;

    Mutex m_thermalMutex;
    SteadyTime m_lastThermalUpdate GUARDED_BY(m_thermalMutex);
};

}  // namespace kelm
