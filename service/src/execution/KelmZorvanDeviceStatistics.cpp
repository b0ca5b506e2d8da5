// What the device tells of itself: auxiliary blocks for clients, temperatures, inference times.
#include <algorithm>
#include <cstring>

#include "execution/KelmZorvanDevice.h"
#include "execution/TevoLengths.h"
#include "protocol/src/KelmMessage.h"
#include "records/KelmGraph.h"
#include "records/KelmTaskParam.h"

namespace kelm {

namespace {

// Blocks that a client can ask for.
constexpr uint32_t kAuxTimeTaken = 1;
constexpr uint32_t kAuxThermalStats = 2;
constexpr uint32_t kAuxDebugInfo = 4;
// Marks an auxiliary buffer that could not be filled.
constexpr int kAuxUnusable = 0xA5;
// Shorter arrays have no last step.
constexpr unsigned int kTwoTimes = 2 * sizeof(float);

char* dataOf(const KelmBuffer& buffer) { return reinterpret_cast<char*>(buffer.buffer); }

// Appends a block, or as much of it as there is room for.
void append(KelmBuffer& buffer, uint64_t& used, const char* block, uint64_t size) {
    const uint64_t count = std::min(buffer.size - used, size);
    std::memcpy(dataOf(buffer) + used, block, count);
    used += count;
}

float millisSince(std::chrono::steady_clock::time_point start,
                  std::chrono::steady_clock::time_point now) {
    return std::chrono::duration<float, std::milli>(now - start).count();
}

}  // namespace

int KelmZorvanDevice::getAuxBufferData(qxGraphHandle_t* graphHandle, KelmTaskParam& param) {
    KelmBuffer& buffer = param.getAuxBuffer();
    if (!mapBuffer(param, buffer, FileRights::WRITE)) {
        LOG_ERROR("Error: map aux buffer failed, device=%s", getName());
        return KELM_ERROR_MAP_AUX_FAILED;
    }
    uint64_t used = 0;
    if ((buffer.auxFlags & kAuxTimeTaken) != 0) {
        if (const int rc = copyTimeTaken(graphHandle, buffer, used)) return rc;
    }
    if ((buffer.auxFlags & kAuxThermalStats) != 0) {
        if (const int rc = copyThermalStats(buffer, used)) return rc;
    }
    if ((buffer.auxFlags & kAuxDebugInfo) == 0 || used == buffer.size) return KELM_OK;
    return fillDebugInfo(graphHandle, buffer, used);
}

int KelmZorvanDevice::getTimeTakenSize(qxGraphHandle_t* graphHandle, unsigned int& size) {
    LOG_FREQ_OF(m_logName.c_str(), m_debugProcess,
                "to call qxGraphGetOption(), graphHandle=%p, "
                "option=QX_RO_GRAPH_TIME_TAKEN_ARRAY_SIZE",
                graphHandle);
    unsigned int length = sizeof(size);
    const int rc =
        m_tevo.qxGraphGetOption(graphHandle, QX_RO_GRAPH_TIME_TAKEN_ARRAY_SIZE, &size, &length);
    LOG_FREQ_OF(m_logName.c_str(), m_debugProcess,
                "called qxGraphGetOption(), timeTakenArraySize=%u", size);
    return checked(rc,
                   "Error: qxGraphGetOption(QX_RO_GRAPH_TIME_TAKEN_ARRAY_SIZE) failed, "
                   "device=%s rc=%d");
}

int KelmZorvanDevice::getTimeTaken(qxGraphHandle_t* graphHandle, char* data, unsigned int& length) {
    LOG_FREQ_OF(m_logName.c_str(), m_debugProcess,
                "to call qxGraphGetOption(), graphHandle=%p option=QX_RO_GRAPH_TIME_TAKEN",
                graphHandle);
    const unsigned int room = length;
    const int rc = m_tevo.qxGraphGetOption(graphHandle, QX_RO_GRAPH_TIME_TAKEN, data, &length);
    LOG_FREQ_OF(m_logName.c_str(), m_debugProcess,
                "called qxGraphGetOption(), timeTaken=%p timeTakenLen=%u",
                static_cast<const void*>(data), length);
    length = std::min(length, room);
    return checked(rc, "Error: qxGraphGetOption(QX_RO_GRAPH_TIME_TAKEN) failed, device=%s rc=%d");
}

int KelmZorvanDevice::readTimeTaken(qxGraphHandle_t* graphHandle, UniqueMalloc<char>& data,
                                    unsigned int& length, int noMemory) {
    unsigned int size = 0;
    if (const int rc = getTimeTakenSize(graphHandle, size)) return rc;
    data.reset(static_cast<char*>(std::calloc(1, std::max(size, 1u))));
    if (!data) {
        LOG_ERROR("Error: [dev:%s] calloc(%u) faled.", getName(), size);
        return noMemory;
    }
    length = size;
    return getTimeTaken(graphHandle, data.get(), length);
}

int KelmZorvanDevice::copyTimeTaken(qxGraphHandle_t* graphHandle, KelmBuffer& buffer,
                                    uint64_t& used) {
    UniqueMalloc<char> data;
    unsigned int length = 0;
    if (const int rc = readTimeTaken(graphHandle, data, length, kTevoOutOfMemory)) {
        // There is an array once its size was known.
        if (data) std::memset(dataOf(buffer), kAuxUnusable, buffer.size);
        return rc;
    }
    append(buffer, used, data.get(), length);
    KelmGraph* const graph = getCurrentGraph();
    if (m_inferTimeWarmup == 0 && graph != nullptr && length > kTwoTimes) {
        graph->updateInferenceTime(getInferenceTime(data.get(), length));
    }
    return KELM_OK;
}

int KelmZorvanDevice::copyThermalStats(KelmBuffer& buffer, uint64_t& used) {
    char stats[kThermalStatsSize] = {};
    unsigned int length = sizeof(stats);
    LOG_FREQ_OF(m_logName.c_str(), m_debugProcess,
                "to call qxDeviceGetOption(QX_RO_DEVICE_THERMAL_STATS)");
    const int rc =
        m_tevo.qxDeviceGetOption(m_deviceHandle, QX_RO_DEVICE_THERMAL_STATS, stats, &length);
    LOG_FREQ_OF(m_logName.c_str(), m_debugProcess,
                "called qxDeviceGetOption(), thermalStats=%p thermalStatsLen=%u",
                static_cast<const void*>(stats), length);
    if (rc != KELM_OK) {
        std::memset(dataOf(buffer), kAuxUnusable, buffer.size);
        return checked(
            rc, "Error: qxDeviceGetOption(QX_RO_DEVICE_THERMAL_STATS) failed, device=%s rc=%d");
    }
    append(buffer, used, stats, std::min<uint64_t>(length, sizeof(stats)));
    return KELM_OK;
}

int KelmZorvanDevice::fillDebugInfo(qxGraphHandle_t* graphHandle, KelmBuffer& buffer,
                                    uint64_t used) {
    char* const position = dataOf(buffer) + used;
    unsigned int length = clampLength(buffer.size - used);
    LOG_FREQ_OF(m_logName.c_str(), m_debugProcess,
                "to call qxGraphGetOption(), graphHandle=%p option=QX_RO_GRAPH_DEBUG_INFO",
                graphHandle);
    const int rc = m_tevo.qxGraphGetOption(graphHandle, QX_RO_GRAPH_DEBUG_INFO, position, &length);
    LOG_FREQ_OF(m_logName.c_str(), m_debugProcess,
                "called qxGraphGetOption(), debugInfo=%p debugInfoLen=%u",
                static_cast<const void*>(position), length);
    return checked(rc, "Error: qxGraphGetOption(QX_RO_GRAPH_DEBUG_INFO) failed, device=%s rc=%d");
}

float KelmZorvanDevice::getInferenceTime(const char* data, unsigned int length) {
    const size_t count = length / sizeof(float);
    float lastTwo[2] = {};
    std::memcpy(lastTwo, data + (count - 2) * sizeof(float), sizeof(lastTwo));
    return lastTwo[1] - lastTwo[0];
}

int KelmZorvanDevice::updateInferenceTimeInfo(qxGraphHandle_t* graphHandle) {
    if (isFailed()) return KELM_ERROR_DEVICE_FAILED;
    KelmGraph* const graph = getCurrentGraph();
    if (graph == nullptr || m_inferTimeWarmup != 0) return KELM_OK;
    const SteadyTime now = std::chrono::steady_clock::now();
    const auto interval = static_cast<float>(m_updateInferTimeInterval);
    if (millisSince(m_lastInferTimeUpdate, now) < interval) return KELM_OK;
    UniqueMalloc<char> data;
    unsigned int length = 0;
    if (const int rc = readTimeTaken(graphHandle, data, length, KELM_ERROR_OUT_OF_MEMORY)) {
        return rc;
    }
    if (length <= kTwoTimes) return KELM_OK;  // the next result tries again
    const float inferTime = getInferenceTime(data.get(), length);
    graph->updateInferenceTime(inferTime);
    m_lastInferTimeUpdate = now;
    LOG_DEBUG("[dev: %s] inferTime = %.2f ms", getName(), inferTime);
    return KELM_OK;
}

int KelmZorvanDevice::updateThermalInfo() {
    if (m_deviceFailed) return KELM_ERROR_DEVICE_FAILED;
    if (m_updateThermalInterval < 1) return KELM_OK;  // readings are switched off
    return m_root->updateThermalIfDue();
}

int KelmZorvanDevice::updateThermalIfDue() {
    if (m_deviceFailed) return KELM_ERROR_DEVICE_FAILED;
    MutexLock lock(m_thermalMutex);
    const SteadyTime now = std::chrono::steady_clock::now();
    const auto interval = static_cast<float>(m_updateThermalInterval);
    if (millisSince(m_lastThermalUpdate, now) < interval) return KELM_OK;
    const int rc = updateThermal();
    m_lastThermalUpdate = now;
    return rc;
}

int KelmZorvanDevice::updateThermal() {
    if (m_deviceFailed) return KELM_ERROR_DEVICE_FAILED;
    char stats[kThermalStatsSize] = {};
    unsigned int length = sizeof(stats);
    LOG_FREQ_OF(m_logName.c_str(), m_debugProcess,
                "to call qxDeviceGetOption(), devHandle=%p option=QX_RO_DEVICE_THERMAL_STATS",
                m_deviceHandle);
    int rc = m_tevo.qxDeviceGetOption(m_deviceHandle, QX_RO_DEVICE_THERMAL_STATS, stats, &length);
    LOG_FREQ_OF(m_logName.c_str(), m_debugProcess,
                "called qxDeviceGetOption(), devHandle=%p thermalStats=%p thermalStatsLen=%u",
                m_deviceHandle, static_cast<const void*>(stats), length);
    if (rc != KELM_OK) {
        return checked(
            rc, "Error: qxDeviceGetOption(QX_RO_DEVICE_THERMAL_STATS) failed, device=%s rc=%d");
    }
    float thermal = 0.0f;
    std::memcpy(&thermal, stats, sizeof(thermal));
    m_thermal = thermal;
    int level = 0;
    length = sizeof(level);
    LOG_FREQ_OF(m_logName.c_str(), m_debugProcess,
                "to call qxDeviceGetOption(), devHandle=%p "
                "option=QX_RO_DEVICE_THERMAL_THROTTLING_LEVEL",
                m_deviceHandle);
    rc = m_tevo.qxDeviceGetOption(m_deviceHandle, QX_RO_DEVICE_THERMAL_THROTTLING_LEVEL, &level,
                                  &length);
    LOG_FREQ_OF(m_logName.c_str(), m_debugProcess,
                "called qxDeviceGetOption(), devHandle=%p throttling=%d throttlingLen=%u",
                m_deviceHandle, level, length);
    if (rc != KELM_OK) {
        return checked(rc,
                       "Error: qxDeviceGetOption(QX_RO_DEVICE_THERMAL_THROTTLING_LEVEL) failed, "
                       "device=%s rc=%d");
    }
    m_thermalThrottlingLevel = level;
    return KELM_OK;
}

}  // namespace kelm
