#include "scheduling/mapping/ReadyPlacer.h"

#include <utility>

#include "scheduling/mapping/MapperModel.h"
#include "scheduling/mapping/MapperPlanner.h"
#include "utils/Log.h"
#include "utils/StepTrace.h"

namespace kelm {

namespace {

void putReady(DeviceItem& device, GraphItem& item) {
    device.graphs.assign(&item);
    device.devStatus = MAPPER_GRAPH_RDY;
    ++item.dedicatedDevNum;
}

}  // namespace

ReadyPlacer::ReadyPlacer(MapperModel& model, int32_t maxGraphNumPerDevice, StepTrace trace)
    : m_model(model),
      m_maxGraphNumPerDevice(maxGraphNumPerDevice),
      m_trace(std::move(trace)),
      m_devices(model.devices()) {}

int32_t ReadyPlacer::mapRdyGraphBalance(uint32_t rdyGraphNum, uint32_t deviceNum) {
    const uint32_t freeNum = freeReadyDevices();
    // The running graphs have taken more or fewer devices than they were given: the division was
    // made for other numbers.
    if (freeNum != deviceNum) {
        LOG_STEP("mapRdyGraphBalance - device number is mismatch, current = %d, request = %d!",
                 freeNum, deviceNum);
        return MapperPlanner::kHardFailure;
    }
    const int64_t places = int64_t{m_maxGraphNumPerDevice} * deviceNum;
    if (places < rdyGraphNum) {
        LOG_STEP("mapRdyGraphBalance - rdyGraph is too much, rdyGraphNum = %d, deviceNum = %d!",
                 rdyGraphNum, deviceNum);
        return static_cast<int32_t>(rdyGraphNum - places);
    }
    return rdyGraphNum > deviceNum ? pairRdyGraphs() : spreadRdyGraphs(rdyGraphNum, deviceNum);
}

// Empties the devices that hold no running graph; their number.
uint32_t ReadyPlacer::freeReadyDevices() {
    uint32_t freeNum = 0;
    for (DeviceItem* device : m_model.devices()) {
        if (device->devStatus == MAPPER_GRAPH_RDY) device->devStatus = MAPPER_GRAPH_NONE;
        if (device->devStatus != MAPPER_GRAPH_NONE) continue;
        ++freeNum;
        device->graphs.clear();
    }
    return freeNum;
}

// More graphs than devices: a device each while there are any, then as second graphs.
int32_t ReadyPlacer::pairRdyGraphs() {
    for (GraphItem* item : m_model.graphs()) {
        if (item->status != MAPPER_GRAPH_RDY) continue;
        item->dedicatedDevNum = 0;
        item->sharedDevNum = 0;
        if (DeviceItem* device = m_devices.getFreeDevice()) {
            putReady(*device, *item);
            continue;
        }
        // Deliberate: the device's `mem` is still that of the last mapping, not its first graph's.
        DeviceItem* device = m_devices.getRdyDevice(item->memReq);
        if (device == nullptr) return MapperPlanner::kHardFailure;
        GraphItem* first = device->graphs.find(0);
        device->graphs.setSecond(item);
        item->sharedDevNum = 1;
        first->dedicatedDevNum = 0;
        first->sharedDevNum = 1;
    }
    return 0;
}

// At least a device for each graph; the first graphs get what does not divide evenly.
int32_t ReadyPlacer::spreadRdyGraphs(uint32_t rdyGraphNum, uint32_t deviceNum) {
    // At least 1: more graphs than devices are paired instead, and without a ready graph nothing is
    // placed.
    const uint32_t share = deviceNum / rdyGraphNum;
    uint32_t rest = deviceNum % rdyGraphNum;
    for (GraphItem* item : m_model.graphs()) {
        if (item->status != MAPPER_GRAPH_RDY) continue;
        uint32_t wanted = share;
        if (rest > 0) {
            ++wanted;
            --rest;
        }
        for (; wanted > 0; --wanted) {
            DeviceItem* device = m_devices.getFreeDevice();
            if (device == nullptr) return MapperPlanner::kHardFailure;
            putReady(*device, *item);
        }
    }
    return 0;
}

}  // namespace kelm
