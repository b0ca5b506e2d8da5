#include "records/KelmGraph.h"

#include <utility>

#include "utils/CommonHelper.h"
#include "utils/Log.h"
#include "utils/TextHelper.h"

namespace kelm {

namespace {

// The demand of a graph that has not been measured yet, whatever its backlog.
constexpr float kUnmeasuredRequest = 0.5f;

}  // namespace

KelmGraph::KelmGraph(uint64_t id, uint64_t clientId, const char* name, int32_t expectDeviceNumber)
    : GraphContent(id, expectDeviceNumber),
      GraphUsers(clientId, name),
      GraphDemand(name != nullptr ? name : "unnamed") {}

KelmGraph::KelmGraph(uint64_t id, uint64_t clientId, const char* path, const char* name,
                     int32_t expectDeviceNumber)
    : KelmGraph(id, clientId, name, expectDeviceNumber) {
    readFile(path);
    estimateMemory();
}

KelmGraph::KelmGraph(uint64_t id, uint64_t clientId, const char* buffer, uint64_t size,
                     const char* name, int32_t expectDeviceNumber)
    : KelmGraph(id, clientId, name, expectDeviceNumber) {
    copyBuffer(buffer, size);
    estimateMemory();
}

KelmGraph::KelmGraph(uint64_t id, uint64_t clientId, const char* path, UniqueMalloc<char> data,
                     uint64_t size, std::string hash, const char* name, int32_t expectDeviceNumber)
    : KelmGraph(id, clientId, name, expectDeviceNumber) {
    takeBytes(path, std::move(data), size, std::move(hash));
    estimateMemory();
}

// In MB, rounded down; the first load on a device puts the real figure in its place.
void KelmGraph::estimateMemory() {
    setMemReq(static_cast<uint32_t>(getDataSize() >> kMegabyteShift));
}

float KelmGraph::getDevReqNum() {
    GraphLoad load;
    load.avgInferTime = getAvgInferTime();
    if (load.avgInferTime <= 0.0f) return kUnmeasuredRequest;
    load.waitTasks = getNumWaitTasks();
    load.fpsIn = getFpsIn();
    load.fpsOut = getFpsOut();
    // The factor reads the figures anew: it may be of a later moment than the request.
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
