#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "utils/FpsCounter.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"
#include "utils/Ring.h"

namespace kelm {

// The figures of a graph at one moment, from which its demand follows.
struct GraphLoad {
    float avgInferTime = 0.0f;  // milliseconds, above 0
    uint32_t waitTasks = 0;
    float fpsIn = 0.0f;  // may be infinite, as fpsOut
    float fpsOut = 0.0f;
};

// Tasks per second that one device is taken to deliver.
float computeDeviceFps(float avgInferTime);
// The rate at which the backlog shrinks: that of tasks which leave the waiting state, or one
// device's rate while none has.
float computeDrainRate(const GraphLoad& load);
// How many devices the load needs, before the factor. Pure; the same floats on every compiler.
float computeDeviceRequest(const GraphLoad& load);
// 1.5 for a graph that keeps up, has no backlog, and needs barely more than a whole number.
float computeDevReqFactor(float deviceRequest, const GraphLoad& load);

// What is measured of a graph: the rates of tasks that arrive and that leave the waiting state, how
// many wait, and how long an inference takes.
//
// Threads: any. Locks: m_waitMutex, then a counter's; m_inferenceMutex is taken alone.
class GraphDemand : public NonCopyable {
 public:
    // A task arrived, and a task left the waiting state.
    void updateFpsIn() EXCLUDES(m_waitMutex);
    void updateFpsOut() EXCLUDES(m_waitMutex);
    float getFpsIn() { return m_fpsIn.getFps(); }
    float getFpsOut() { return m_fpsOut.getFps(); }
    uint32_t getNumWaitTasks() EXCLUDES(m_waitMutex);
    // Tasks that were asked for, also those that were refused then.
    void countArrival() { m_arrivals.fetch_add(1); }
    uint64_t getArrivals() const { return m_arrivals.load(); }

    // Milliseconds; values that are not finite and above 0 are ignored.
    void updateInferenceTime(float milliseconds) EXCLUDES(m_inferenceMutex);
    // Mean of the last 200, 0 without any.
    float getAvgInferTime() EXCLUDES(m_inferenceMutex);
    // computeDevReqFactor() with the figures of this moment.
    float getDevReqFactor(float deviceRequest);

    void increaseTaskCount() { m_taskCount.fetch_add(1); }
    void decreaseTaskCount() { m_taskCount.fetch_sub(1); }
    int64_t getTaskCount() const { return m_taskCount.load(); }
    void increaseInferenceTimes() { m_inferenceTimes.fetch_add(1); }
    uint64_t getInferenceTimes() const { return m_inferenceTimes.load(); }

 protected:
    explicit GraphDemand(const char* name);
    ~GraphDemand() = default;

 private:
    static constexpr size_t kMaxInferTimes = 200;

    FpsCounter m_fpsIn;
    FpsCounter m_fpsOut;
    // Atomic: task threads change them without a mutex, and no decision takes both together.
    std::atomic<int64_t> m_taskCount{0};
    std::atomic<uint64_t> m_inferenceTimes{0};
    std::atomic<uint64_t> m_arrivals{0};

    Mutex m_waitMutex;
    uint32_t m_numWaitTasks GUARDED_BY(m_waitMutex) = 0;
    Mutex m_inferenceMutex;
    Ring<float> m_inferTimes GUARDED_BY(m_inferenceMutex);  // milliseconds, oldest first
};

}  // namespace kelm
