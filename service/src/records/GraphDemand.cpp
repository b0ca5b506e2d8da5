#include "records/GraphDemand.h"

#include <cmath>

#include "config/ServiceConfigParser.h"
#include "utils/Log.h"

namespace kelm {

float computeDeviceFps(float avgInferTime) {
    const double rate = 1000.0 / static_cast<double>(avgInferTime);
    // Deliberate: twice the rate that the inference time alone gives, since a device works on one
    // task while it takes in the next.
    return static_cast<float>(rate + rate);
}

float computeDrainRate(const GraphLoad& load) {
    return load.fpsOut > 0.0f ? load.fpsOut : computeDeviceFps(load.avgInferTime);
}

// The backlog, in seconds that it takes to drain, counts as so many times the arrivals. The casts
// keep float and double where they are: the schedulers decide the same on every compiler.
float computeDeviceRequest(const GraphLoad& load) {
    const float rate = computeDrainRate(load);
    if (load.fpsIn > 0.0f) {
        const float backlog = static_cast<float>(load.waitTasks) / rate;
        const float arrivals = load.fpsIn / computeDeviceFps(load.avgInferTime);
        return static_cast<float>((static_cast<double>(backlog) + 1.0) *
                                  static_cast<double>(arrivals));
    }
    return static_cast<float>(static_cast<double>(load.waitTasks) / static_cast<double>(rate));
}

float computeDevReqFactor(float deviceRequest, const GraphLoad& load) {
    // Without arrivals the quotient is infinite or not a number, and the comparison decides.
    const float kept = load.fpsOut / load.fpsIn;
    const float fraction = deviceRequest - std::floor(deviceRequest);
    const bool keepsUp = static_cast<double>(kept) > 0.95 && load.waitTasks == 0;
    return keepsUp && 0.1 > static_cast<double>(fraction) ? 1.5f : 1.0f;
}

// Both rates over the same window, since they are divided by each other.
GraphDemand::GraphDemand(const char* name)
    : m_fpsIn("KelmGraph", name, "FpsIn"), m_fpsOut("KelmGraph", name, "FpsOut") {
    const int window = ServiceConfigParser::instance().getFpsBufferTimeLength();
    m_fpsIn.m_bufferTimeMs = window;
    m_fpsOut.m_bufferTimeMs = window;
}

void GraphDemand::updateFpsIn() {
    MutexLock lock(m_waitMutex);
    m_fpsIn.update();  // under the mutex, so that rate and backlog tell of the same tasks
    ++m_numWaitTasks;
}

void GraphDemand::updateFpsOut() {
    MutexLock lock(m_waitMutex);
    m_fpsOut.update();
    if (m_numWaitTasks > 0) {
        --m_numWaitTasks;
    } else {
        // Not lowered below 0: the count is unsigned.
        LOG_ERROR("Error: updateFpsOut encountered internal error");
    }
}

// A device that tells nothing sensible must not spoil the mean.
void GraphDemand::updateInferenceTime(float milliseconds) {
    if (!(milliseconds > 0.0f) || !std::isfinite(milliseconds)) return;
    MutexLock lock(m_inferenceMutex);
    m_inferTimes.pushBack(milliseconds);
    if (m_inferTimes.size() > kMaxInferTimes) m_inferTimes.popFront();
}

// 0 before the first measure; the callers take that as "not measured".
float GraphDemand::getAvgInferTime() {
    MutexLock lock(m_inferenceMutex);
    if (m_inferTimes.empty()) return 0.0f;
    float sum = 0.0f;
    for (size_t i = 0; i < m_inferTimes.size(); ++i) sum += m_inferTimes.at(i);
    return sum / static_cast<float>(m_inferTimes.size());
}

uint32_t GraphDemand::getNumWaitTasks() {
    MutexLock lock(m_waitMutex);
    return m_numWaitTasks;
}

float GraphDemand::getDevReqFactor(float deviceRequest) {
    GraphLoad load;
    load.fpsIn = getFpsIn();
    load.fpsOut = getFpsOut();
    load.waitTasks = getNumWaitTasks();
    return computeDevReqFactor(deviceRequest, load);
}

}  // namespace kelm
