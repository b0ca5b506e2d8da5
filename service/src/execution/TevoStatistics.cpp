#include "execution/TevoStatistics.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "config/ServiceConfigParser.h"
#include "execution/TaskBuffers.h"
#include "protocol/src/KelmMessage.h"
#include "records/KelmGraph.h"
#include "records/KelmTaskParam.h"

namespace kelm {

namespace {

using SteadyTime = std::chrono::steady_clock::time_point;

// Results to wait before inference times are read: the first ones after a change are slow.
constexpr int32_t kWarmupResults = 5;
// Blocks that a client can ask for.
constexpr uint32_t kAuxTimeTaken = 1;
constexpr uint32_t kAuxThermalStats = 2;
constexpr uint32_t kAuxDebugInfo = 4;
// Fills an auxiliary buffer whose block the device did not give.
constexpr int kAuxUnusable = 0xA5;
// Filled at most: a client can claim any size at no cost, and each page that is written costs
// memory.
constexpr uint64_t kMostFilled = 16ULL << 20;
// An array of two floats or fewer holds no step of an inference.
constexpr unsigned int kTwoTimes = 2 * sizeof(float);

char* dataOf(const KelmBuffer& buffer) { return reinterpret_cast<char*>(buffer.buffer); }

// Appends a block, or as much of it as there is room for. `used` never exceeds the size.
void append(KelmBuffer& buffer, uint64_t& used, const char* block, uint64_t size) {
    const uint64_t count = std::min(buffer.size - used, size);
    std::memcpy(dataOf(buffer) + used, block, count);
    used += count;
}

void markUnusable(const KelmBuffer& buffer) {
    std::memset(dataOf(buffer), kAuxUnusable, std::min<uint64_t>(buffer.size, kMostFilled));
}

float millisSince(std::chrono::steady_clock::time_point start,
                  std::chrono::steady_clock::time_point now) {
    return std::chrono::duration<float, std::milli>(now - start).count();
}

}  // namespace

TevoStatistics::TevoStatistics(TevoDevice& device)
    : m_device(device),
      m_trace(device.trace),
      m_updateInferTimeInterval(ServiceConfigParser::instance().getUpdateInferTimeInterval()),
      m_inferTimeWarmup(kWarmupResults),
      m_lastInferTimeUpdate(std::chrono::steady_clock::now()) {}

void TevoStatistics::restartWarmup() { m_inferTimeWarmup = kWarmupResults; }

// A plain load and store: see the field for what a lost step costs.
void TevoStatistics::countResult() {
    const int32_t warmup = m_inferTimeWarmup;
    if (warmup != 0) m_inferTimeWarmup = warmup - 1;
}

// The blocks stand in this order and without gaps, and the last one is cut where the buffer ends; a
// client finds them by the sizes that it has asked for before.
int TevoStatistics::getAuxBufferData(qxGraphHandle_t* graphHandle, KelmTaskParam& param,
                                     KelmGraph* graph) {
    KelmBuffer& buffer = param.getAuxBuffer();
    if (!TaskBuffers::mapBuffer(param, buffer, FileRights::WRITE)) {
        LOG_ERROR("Error: map aux buffer failed, device=%s", m_device.name);
        return KELM_ERROR_MAP_AUX_FAILED;
    }
    uint64_t used = 0;
    if ((buffer.auxFlags & kAuxTimeTaken) != 0) {
        if (const int rc = copyTimeTaken(graphHandle, graph, buffer, used)) return rc;
    }
    if ((buffer.auxFlags & kAuxThermalStats) != 0) {
        if (const int rc = copyThermalStats(buffer, used)) return rc;
    }
    if ((buffer.auxFlags & kAuxDebugInfo) == 0 || used == buffer.size) return KELM_OK;
    return fillDebugInfo(graphHandle, buffer, used);
}

int TevoStatistics::getTimeTakenSize(qxGraphHandle_t* graphHandle, unsigned int& size) {
    LOG_TASK(
        "to call qxGraphGetOption(), graphHandle=%p, "
        "option=QX_RO_GRAPH_TIME_TAKEN_ARRAY_SIZE",
        graphHandle);
    unsigned int length = sizeof(size);
    const int rc = m_device.tevo.qxGraphGetOption(graphHandle, QX_RO_GRAPH_TIME_TAKEN_ARRAY_SIZE,
                                                  &size, &length);
    LOG_TASK("called qxGraphGetOption(), timeTakenArraySize=%u", size);
    return m_device.checked(rc,
                            "Error: qxGraphGetOption(QX_RO_GRAPH_TIME_TAKEN_ARRAY_SIZE) failed, "
                            "device=%s rc=%d");
}

int TevoStatistics::getTimeTaken(qxGraphHandle_t* graphHandle, char* data, unsigned int& length) {
    LOG_TASK("to call qxGraphGetOption(), graphHandle=%p option=QX_RO_GRAPH_TIME_TAKEN",
             graphHandle);
    const unsigned int room = length;  // the library may tell of more than it was offered
    const int rc =
        m_device.tevo.qxGraphGetOption(graphHandle, QX_RO_GRAPH_TIME_TAKEN, data, &length);
    LOG_TASK("called qxGraphGetOption(), timeTaken=%p timeTakenLen=%u",
             static_cast<const void*>(data), length);
    length = std::min(length, room);
    return m_device.checked(
        rc, "Error: qxGraphGetOption(QX_RO_GRAPH_TIME_TAKEN) failed, device=%s rc=%d");
}

int TevoStatistics::readTimeTaken(qxGraphHandle_t* graphHandle, UniqueMalloc<char>& data,
                                  unsigned int& length, int noMemory) {
    unsigned int size = 0;
    if (const int rc = getTimeTakenSize(graphHandle, size)) return rc;
    // Zeroed, and at least a byte: an empty array is no lack of memory.
    data.reset(static_cast<char*>(std::calloc(1, std::max(size, 1u))));
    if (!data) {
        LOG_ERROR("Error: [dev:%s] calloc(%u) faled.", m_device.name, size);
        return noMemory;
    }
    length = size;
    return getTimeTaken(graphHandle, data.get(), length);
}

int TevoStatistics::copyTimeTaken(qxGraphHandle_t* graphHandle, KelmGraph* graph,
                                  KelmBuffer& buffer, uint64_t& used) {
    UniqueMalloc<char> data;
    unsigned int length = 0;
    if (const int rc = readTimeTaken(graphHandle, data, length, kTevoOutOfMemory)) {
        // Without an array its size was not told, and the buffer stays as the client gave it.
        if (data) markUnusable(buffer);
        return rc;
    }
    append(buffer, used, data.get(), length);
    if (m_inferTimeWarmup == 0 && graph != nullptr && length > kTwoTimes) {
        graph->updateInferenceTime(getInferenceTime(data.get(), length));
    }
    return KELM_OK;
}

// Read anew: the device keeps only the temperature of its own readings, not the whole block.
int TevoStatistics::copyThermalStats(KelmBuffer& buffer, uint64_t& used) {
    char stats[kThermalStatsSize] = {};
    unsigned int length = sizeof(stats);
    LOG_TASK("to call qxDeviceGetOption(QX_RO_DEVICE_THERMAL_STATS)");
    const int rc = m_device.tevo.qxDeviceGetOption(m_device.handle, QX_RO_DEVICE_THERMAL_STATS,
                                                   stats, &length);
    LOG_TASK("called qxDeviceGetOption(), thermalStats=%p thermalStatsLen=%u",
             static_cast<const void*>(stats), length);
    if (rc != KELM_OK) {
        markUnusable(buffer);
        return m_device.checked(
            rc, "Error: qxDeviceGetOption(QX_RO_DEVICE_THERMAL_STATS) failed, device=%s rc=%d");
    }
    append(buffer, used, stats, std::min<uint64_t>(length, sizeof(stats)));
    return KELM_OK;
}

int TevoStatistics::fillDebugInfo(qxGraphHandle_t* graphHandle, KelmBuffer& buffer, uint64_t used) {
    // The library writes into the client's memory itself: a block of any length needs no copy.
    char* const position = dataOf(buffer) + used;
    unsigned int length = clampLength(buffer.size - used);
    LOG_TASK("to call qxGraphGetOption(), graphHandle=%p option=QX_RO_GRAPH_DEBUG_INFO",
             graphHandle);
    const int rc =
        m_device.tevo.qxGraphGetOption(graphHandle, QX_RO_GRAPH_DEBUG_INFO, position, &length);
    LOG_TASK("called qxGraphGetOption(), debugInfo=%p debugInfoLen=%u",
             static_cast<const void*>(position), length);
    return m_device.checked(
        rc, "Error: qxGraphGetOption(QX_RO_GRAPH_DEBUG_INFO) failed, device=%s rc=%d");
}

float TevoStatistics::getInferenceTime(const char* data, unsigned int length) {
    const size_t count = length / sizeof(float);
    float lastTwo[2] = {};
    std::memcpy(lastTwo, data + (count - 2) * sizeof(float), sizeof(lastTwo));
    return lastTwo[1] - lastTwo[0];
}

int TevoStatistics::updateInferenceTimeInfo(qxGraphHandle_t* graphHandle, KelmGraph* graph) {
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
    LOG_DEBUG("[dev: %s] inferTime = %.2f ms", m_device.name, inferTime);
    return KELM_OK;
}

}  // namespace kelm
