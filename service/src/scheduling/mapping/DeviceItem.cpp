#include "scheduling/mapping/DeviceItem.h"

#include "utils/StringHelper.h"

namespace kelm {

// The id by two: a device takes two ids, one for its shadow.
std::string DeviceItem::dump() const {
    std::string text = StringHelper::format(
        "DeviceItem(%u) - workerName=%s worker=%p graphNum=%d util=%.2f mem=%u devStatus=%d "
        "isFull=%d isMatched=%d memSize=%u",
        id / 2, workerName, worker, static_cast<int>(graphs.size()), util, mem, devStatus,
        static_cast<int>(isFull), static_cast<int>(isMatched), memSize);
    if (!graphs.empty()) text += " graphID=";
    for (const GraphItem* graph : graphs) text += StringHelper::format("[%u] ", graph->id);
    return text;
}

void DeviceItem::reset() {
    graphs.clear();
    util = 0.0f;
    mem = 0;
    devStatus = MAPPER_GRAPH_NONE;
    isFull = false;
    isMatched = false;
}

// The load that each graph leaves on a device, estimated from its demand less what its other
// devices carry; a device of its own carries the compress ratio. The planner sets the loads that it
// chooses by itself: this one is for the dumps, and the memory for pairs of ready graphs.
void updateDeviceState(const DeviceItemSet& devices) {
    for (DeviceItem* device : devices) {
        const GraphItem* first = device->graphs.find(0);
        if (device->devStatus == MAPPER_GRAPH_NONE || first == nullptr) {
            device->graphs.clear();
            continue;
        }
        const float firstReq = first->devReq;
        // The compress ratio again: the planner has left the scaled demand of each graph.
        const float ratio = firstReq / first->devReqScaled;
        const uint32_t firstNum = first->dedicatedDevNum;
        device->mem = first->memReq;
        const GraphItem* second = device->graphs.find(1);
        if (second == nullptr) {
            const bool dedicated = firstNum >= 1 && first->sharedDevNum == 0;
            device->util = dedicated ? firstReq / static_cast<float>(firstNum) : ratio;
            continue;
        }
        const float secondReq = second->devReq;
        const uint32_t secondNum = second->dedicatedDevNum;
        device->mem += second->memReq;
        if (firstNum != 0 && secondNum != 0) {
            device->util = firstReq - static_cast<float>(firstNum) * ratio + secondReq -
                           static_cast<float>(secondNum) * ratio;
        } else if (firstNum == 0 && secondNum == 0) {
            device->util = firstReq + secondReq;
        } else {
            // The graph with devices of its own is taken to be the one that fills a device.
            const uint32_t num = 1.0f > firstReq ? secondNum : firstNum;
            device->util = firstReq + secondReq - static_cast<float>(num) * ratio;
        }
    }
}

}  // namespace kelm
