#include <cmath>

#include "records/GraphDemand.h"
#include "records/KelmGraph.h"
#include "utils/Log.h"
#include "utils/TextHelper.h"

namespace kelm {

namespace {

// The demand of a graph that has not been measured yet, whatever its backlog.
constexpr float kUnmeasuredRequest = 0.5f;

}  // namespace

void KelmGraph::updateFpsIn() {
    MutexLock lock(m_mutex);
    m_fpsIn.update();
    ++m_numWaitTasks;
}

void KelmGraph::updateFpsOut() {
    MutexLock lock(m_mutex);
    m_fpsOut.update();
    if (m_numWaitTasks > 0) {
        --m_numWaitTasks;
    } else {
        LOG_ERROR("Error: updateFpsOut encountered internal error");
    }
}

void KelmGraph::updateInferenceTime(float milliseconds) {
    if (!(milliseconds > 0.0f) || !std::isfinite(milliseconds)) return;
    MutexLock lock(m_inferenceMutex);
    m_inferTimes.pushBack(milliseconds);
    if (m_inferTimes.size() > m_maxInferTimeNum) m_inferTimes.popFront();
}

float KelmGraph::getAvgInferTime() {
    MutexLock lock(m_inferenceMutex);
    if (m_inferTimes.empty()) return 0.0f;
    float sum = 0.0f;
    for (size_t i = 0; i < m_inferTimes.size(); ++i) sum += m_inferTimes.at(i);
    return sum / static_cast<float>(m_inferTimes.size());
}

float KelmGraph::getDevReqFactor(float deviceRequest) {
    GraphLoad load;
    load.fpsIn = getFpsIn();
    load.fpsOut = getFpsOut();
    load.waitTasks = getNumWaitTasks();
    return computeDevReqFactor(deviceRequest, load);
}

float KelmGraph::getDevReqNum() {
    GraphLoad load;
    load.avgInferTime = getAvgInferTime();
    if (load.avgInferTime <= 0.0f) return kUnmeasuredRequest;
    load.waitTasks = getNumWaitTasks();
    load.fpsIn = getFpsIn();
    load.fpsOut = getFpsOut();
    const float request = computeDeviceRequest(load);
    const float factor = getDevReqFactor(request);
    const float result = request * factor;
    if (load.fpsIn > 0.0f) {
        LOG_DEBUG("[graph:%s] %.2f / %.2f * (1.0 + %u / %.2f) * %.2f = %.2f",
                  escapeControls(getName()), load.fpsIn, computeDeviceFps(load.avgInferTime),
                  load.waitTasks, computeDrainRate(load), factor, result);
    } else {
        LOG_DEBUG("[graph:%s] %u / %.2f * %.2f = %.2f", escapeControls(getName()), load.waitTasks,
                  computeDrainRate(load), factor, result);
    }
    return result;
}

}  // namespace kelm
