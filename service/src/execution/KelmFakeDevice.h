#pragma once

#include <cstdint>
#include <memory>
#include <random>
#include <string>

#include "execution/KelmDeviceBase.h"
#include "execution/LatencyDistribution.h"
#include "utils/Ring.h"
#include "utils/StepTrace.h"

namespace kelm {

// A simulated accelerator: latencies drawn at random, a bounded queue between tensors and results,
// random temperatures. No tensor is touched.
//
// Threads: a slave worker's two threads meet in the queue. A latency passes with the mutex held, so
// that the device works on one thing at a time, as a serial device does.
// Owns: the queue; the tasks in it are borrowed until their result was taken.
// Locks: m_mutex after the base's m_deviceMutex, before its m_graphInfoMutex.
class KelmFakeDevice final : public KelmDeviceBase {
 public:
    explicit KelmFakeDevice(const std::string& name);
    // A clone with an empty queue of its own.
    explicit KelmFakeDevice(KelmFakeDevice* parent);
    ~KelmFakeDevice() override;

    using KelmDeviceBase::openDevice;
    std::unique_ptr<KelmDeviceBase> clone() override;
    int updateThermal() override;

    // Fixed sizes, whatever the data.
    [[nodiscard]] static int getGraphInfo(const char* data, size_t size, KelmGraphInfo what,
                                          size_t& result);

 protected:
    int openDevice(const char* name) override REQUIRES(m_deviceMutex);
    int closeDeviceImpl() override REQUIRES(m_deviceMutex);
    int allocateGraphImpl(KelmGraph* graph) override REQUIRES(m_deviceMutex) EXCLUDES(m_mutex);
    int deallocateGraphImpl(KelmGraph* graph, bool keepCached) override REQUIRES(m_deviceMutex);
    void forgetGraphImpl(KelmGraph* graph) override REQUIRES(m_deviceMutex);
    int loadTensorImpl(KelmTask* task) override EXCLUDES(m_mutex);
    int getResultImpl(KelmTask* task) override EXCLUDES(m_mutex);

 private:
    using SteadyTime = std::chrono::steady_clock::time_point;

    void readSettings();
    // One timed wait; false when its deadline has passed.
    bool waitOnceUnsafe(CondVar& condition) REQUIRES(m_mutex);
    // Takes the next result off the queue; false, with errno, when there is none in time.
    bool takeResult(KelmTask* task, float& spentMs) EXCLUDES(m_mutex);
    static float millisSince(SteadyTime start);

    std::string m_logName;
    const StepTrace m_trace;
    bool m_deviceOpened GUARDED_BY(m_deviceMutex) = false;
    bool m_graphLoaded GUARDED_BY(m_deviceMutex) = false;
    size_t m_capacity = 10;              // fixed after construction
    uint64_t m_waitTimeoutSeconds = 10;  // fixed after construction

    Mutex m_mutex;
    std::mt19937 m_randomEngine GUARDED_BY(m_mutex);
    LatencyDistribution m_allocGraphLatency GUARDED_BY(m_mutex);
    LatencyDistribution m_loadTensorLatency GUARDED_BY(m_mutex);
    LatencyDistribution m_getResultLatency GUARDED_BY(m_mutex);
    Ring<KelmTask*> m_taskQueue GUARDED_BY(m_mutex);  // oldest first
    CondVar m_notFull;
    CondVar m_notEmpty;
};

}  // namespace kelm
