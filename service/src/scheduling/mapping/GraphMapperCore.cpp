#include <algorithm>
#include <cfloat>
#include <cmath>

#include "scheduling/mapping/CutToInteger.h"
#include "scheduling/mapping/FractionSelector.h"
#include "scheduling/mapping/GraphMapper.h"
#include "utils/Log.h"

namespace kelm {

namespace {

constexpr int32_t kHardFailure = -1;
// A rest below this part of the whole devices is not worth a share of one more.
constexpr double kSmallRest = 0.1;
constexpr float kUtilLimit = 100.0f;

bool isFractionOnly(const GraphItem* item) {
    return item->status == MAPPER_GRAPH_RUN && item->devReqScaled > 0.0f &&
           item->dedicatedDevNum == 0;
}

void sortBusiestFirst(DeviceItemSet& devices) {
    std::stable_sort(
        devices.begin(), devices.end(),
        [](const DeviceItem* left, const DeviceItem* right) { return left->util > right->util; });
}

// The devices onto which a second graph may be forced, least busy first. Forcing one changes
// nothing for the others: each holds a graph that has no other device of this kind.
DeviceItemSet dedicatedDevices(const DeviceItemSet& devices) {
    DeviceItemSet found;
    std::copy_if(devices.begin(), devices.end(), std::back_inserter(found),
                 [](const DeviceItem* device) {
                     return device->devStatus == MAPPER_GRAPH_RUN && device->graphs.size() == 1 &&
                            !device->isFull && device->graphs.find(0)->sharedDevNum != 1 &&
                            device->util < kUtilLimit;
                 });
    std::stable_sort(
        found.begin(), found.end(),
        [](const DeviceItem* left, const DeviceItem* right) { return left->util < right->util; });
    return found;
}

// Takes the least busy device that has the memory out of the candidates; null if none has.
DeviceItem* getLeastBusyDedicatedDevice(DeviceItemSet& candidates, uint32_t memReq) {
    const auto found =
        std::find_if(candidates.begin(), candidates.end(), [memReq](const DeviceItem* device) {
            // Deliberate: `mem` of a shadow is still 0 here. Only a chosen pair is tested as a sum.
            return uint64_t{device->mem} + memReq < device->memSize;
        });
    if (found == candidates.end()) return nullptr;
    DeviceItem* device = *found;
    candidates.erase(found);
    return device;
}

// Hands out busy devices to be relieved: those of two graphs, busiest first, each once, since it
// loses its second graph; then the busiest of one graph again and again, since no load changes.
class BusyDevices {
 public:
    explicit BusyDevices(const DeviceItemSet& devices) : m_devices(devices) {
        for (DeviceItem* device : devices) {
            if (isBusy(device, 2)) m_pairs.push_back(device);
        }
        sortBusiestFirst(m_pairs);
    }

    DeviceItem* getMostBusyDevice() {
        if (m_next < m_pairs.size()) return m_pairs[m_next++];
        if (m_single == nullptr) m_single = busiestSingle();
        return m_single;
    }

 private:
    static bool isBusy(const DeviceItem* device, size_t graphNum) {
        return device->devStatus == MAPPER_GRAPH_RUN && device->graphs.size() == graphNum &&
               device->util > 0.0f;
    }

    DeviceItem* busiestSingle() const {
        DeviceItem* busiest = nullptr;
        for (DeviceItem* device : m_devices) {
            if (!isBusy(device, 1)) continue;
            if (busiest == nullptr || device->util > busiest->util) busiest = device;
        }
        return busiest;
    }

    const DeviceItemSet& m_devices;
    DeviceItemSet m_pairs;
    size_t m_next = 0;
    DeviceItem* m_single = nullptr;
};

void putPair(DeviceItem& device, GraphItem& first, GraphItem& second) {
    device.graphs.assign(&first, &second);
    device.isFull = true;
    device.util = first.devReqScaled + second.devReqScaled;
    for (GraphItem* item : {&first, &second}) {
        item->devReqScaled = 0.0f;
        item->sharedDevNum = 1;
    }
}

void putAlone(DeviceItem& device, GraphItem& item) {
    device.graphs.assign(&item);
    device.isFull = false;
    device.util = item.devReqScaled;
    ++item.dedicatedDevNum;
    item.devReqScaled = 0.0f;
}

// Moves the second graph of a busy device to a free one, or copies its only one.
void relieve(DeviceItem& busy, DeviceItem& free) {
    GraphItem* second = busy.graphs.find(1);
    GraphItem* first = busy.graphs.find(0);
    free.devStatus = MAPPER_GRAPH_RUN;
    if (second == nullptr) {
        free.graphs.assign(first);
        ++first->dedicatedDevNum;
        return;
    }
    free.graphs.assign(second);
    busy.graphs.eraseSecond();
    for (GraphItem* item : {first, second}) {
        ++item->dedicatedDevNum;
        item->sharedDevNum = 0;
    }
}

}  // namespace

struct GraphMapper::CorePlan {
    void beginPart() { partDevices = partGraphs = 0; }
    void takeDevice() {
        ++devUsed;
        ++partDevices;
    }

    uint32_t deviceNum;  // that may be taken
    float ratio;
    uint32_t devUsed = 0;
    size_t freeCursor = 0;
    // Handled by the part at work, for its log line.
    uint32_t partDevices = 0;
    uint32_t partGraphs = 0;
};

DeviceItem* GraphMapper::getFreeDevice(const DeviceItemSet& devices, size_t& cursor) {
    while (cursor < devices.size() && devices[cursor]->devStatus != MAPPER_GRAPH_NONE) ++cursor;
    return cursor < devices.size() ? devices[cursor] : nullptr;
}

uint32_t GraphMapper::getFreeDeviceNum(const DeviceItemSet& devices) {
    return static_cast<uint32_t>(std::count_if(
        devices.begin(), devices.end(),
        [](const DeviceItem* device) { return device->devStatus == MAPPER_GRAPH_NONE; }));
}

DeviceItem* GraphMapper::getRdyDevice(const DeviceItemSet& devices, uint32_t memReq) {
    const auto found =
        std::find_if(devices.begin(), devices.end(), [memReq](const DeviceItem* device) {
            return device->devStatus == MAPPER_GRAPH_RDY && device->graphs.size() == 1 &&
                   uint64_t{device->mem} + memReq < device->memSize;
        });
    return found != devices.end() ? *found : nullptr;
}

float GraphMapper::getRunGraphSumDevReq() {
    float sum = 0.0f;
    for (const GraphItem* item : m_graphSet) {
        if (item->status == MAPPER_GRAPH_RUN) sum += item->devReq;
    }
    return sum;
}

// All of them, in the order in which they are to be found: the largest fraction first.
GraphItemSet GraphMapper::findGraphFractionOnly() {
    GraphItemSet found;
    std::copy_if(m_graphSet.begin(), m_graphSet.end(), std::back_inserter(found), isFractionOnly);
    std::stable_sort(found.begin(), found.end(), [](const GraphItem* left, const GraphItem* right) {
        return left->devReqScaled > right->devReqScaled;
    });
    return found;
}

int32_t GraphMapper::mapGraphCore(uint32_t deviceNum) {
    const uint32_t runNum = getGraphNumByStatus(MAPPER_GRAPH_RUN);
    const int64_t places = int64_t{m_maxGraphNumPerDevice} * deviceNum;
    if (runNum > places) {
        LOG_PROC(m_debugProcess, "mapGraphCore - too much RUN graph, devNum = %u, graphNum = %u",
                 deviceNum, runNum);
        return static_cast<int32_t>(runNum - places);
    }
    CorePlan plan{.deviceNum = deviceNum, .ratio = getCompressRatio(deviceNum, runNum)};
    LOG_PROC(m_debugProcess, "mapGraphCore: compress ratio = %.2f", plan.ratio);
    if (const int32_t result = mapIntegerPart(plan); result != 0) return result;
    mapFractionPart(plan);
    if (const int32_t result = forceAssign(plan); result != 0) return result;
    lowDownDevices(plan);
    for (GraphItem* item : m_graphSet) {
        if (item->status == MAPPER_GRAPH_RUN) item->devReqScaled = item->devReq / plan.ratio;
    }
    updateDeviceState(m_newDeviceSet);
    return 0;
}

// Divided by it, the demands add up to the number of devices.
float GraphMapper::getCompressRatio(uint32_t deviceNum, uint32_t runNum) {
    const float sum = getRunGraphSumDevReq();
    const float ratio = sum / static_cast<float>(deviceNum);
    if (0.5f > ratio && runNum > deviceNum) return 1.0f;
    // Divided by less than this, a demand may leave the range of numbers.
    if (sum > 0.0f && ratio < FLT_MIN) return 1.0f;
    // Deliberate: may be 0. Graphs that ask for nothing get no device then, see mapIntegerPart().
    return ratio;
}

// Whole devices for the graphs that fill them.
int32_t GraphMapper::mapIntegerPart(CorePlan& plan) {
    plan.beginPart();
    for (GraphItem* item : m_graphSet) {
        if (item->status != MAPPER_GRAPH_RUN) continue;
        item->dedicatedDevNum = 0;
        item->sharedDevNum = 0;
        item->devReqScaled = item->devReq / plan.ratio;
        if (!(item->devReqScaled >= 1.0f)) continue;  // NaN too: nothing over nothing
        if (const int32_t result = giveWholeDevices(plan, *item); result != 0) return result;
        ++plan.partGraphs;
    }
    logPart("mapGraphCore: integer part - process deviceNum = %u, graphNum = %u, devUsed = %u",
            plan);
    return 0;
}

int32_t GraphMapper::giveWholeDevices(CorePlan& plan, GraphItem& item) {
    const float floored = std::floor(item.devReqScaled);
    item.devReqScaled -= floored;
    if (static_cast<double>(item.devReqScaled / floored) < kSmallRest) item.devReqScaled = 0.0f;
    for (uint32_t whole = cutToUnsigned(floored); whole > 0; --whole) {
        DeviceItem* device = getFreeDevice(m_newDeviceSet, plan.freeCursor);
        if (device == nullptr) {
            LOG_PROC(m_debugProcess,
                     "mapGraphCore - cannot get free device when map RUN device, devNum = %u, "
                     "devUsed = %u",
                     plan.deviceNum, plan.devUsed);
            return kHardFailure;
        }
        if (plan.devUsed >= plan.deviceNum) break;
        device->graphs.assign(&item);
        device->devStatus = MAPPER_GRAPH_RUN;
        device->util = 1.0f;
        device->isFull = true;
        ++item.dedicatedDevNum;
        plan.takeDevice();
    }
    return 0;
}

// The fractions, by pairs that fill a device where they are found.
void GraphMapper::mapFractionPart(CorePlan& plan) {
    plan.beginPart();
    FractionSelector selector(m_graphSet, getDeviceMemSize());
    const bool mayPair = m_maxGraphNumPerDevice == 2;
    while (DeviceItem* device = getFreeDevice(m_newDeviceSet, plan.freeCursor)) {
        GraphItem* first = selector.chooseFirstGraphForDevice();
        if (first == nullptr || plan.devUsed >= plan.deviceNum) break;
        plan.takeDevice();
        GraphItem* match = mayPair ? selector.chooseMatchGraph(*first) : nullptr;
        if (match != nullptr &&
            static_cast<double>(match->dedicatedDevNum) < static_cast<double>(match->devReq)) {
            putPair(*device, *first, *match);
            plan.partGraphs += 2;
        } else {
            putAlone(*device, *first);
            ++plan.partGraphs;
        }
        device->devStatus = MAPPER_GRAPH_RUN;
    }
    logPart("mapGraphCore: fraction part - process deviceNum = %u, graphNum = %u, devUsed = %u",
            plan);
}

// What has no device yet goes beside the graphs that load theirs least.
int32_t GraphMapper::forceAssign(CorePlan& plan) {
    plan.beginPart();
    const GraphItemSet left = findGraphFractionOnly();
    DeviceItemSet candidates;
    if (!left.empty() && m_maxGraphNumPerDevice != 1) candidates = dedicatedDevices(m_newDeviceSet);
    for (size_t done = 0; done < left.size(); ++done) {
        GraphItem* item = left[done];
        DeviceItem* device = getLeastBusyDedicatedDevice(candidates, item->memReq);
        if (device == nullptr) {
            const uint32_t leftNum = static_cast<uint32_t>(left.size() - done);
            LOG_PROC(m_debugProcess,
                     "mapGraphCore - failed to force assign the left fraction-only graph to a "
                     "proper device, numGraphLeft = %u",
                     leftNum);
            return static_cast<int32_t>(leftNum);
        }
        GraphItem* first = device->graphs.find(0);
        device->graphs.setSecond(item);
        device->isFull = true;
        item->devReqScaled = 0.0f;
        item->sharedDevNum = 1;
        --first->dedicatedDevNum;
        first->sharedDevNum = 1;
        ++plan.partDevices;
        ++plan.partGraphs;
    }
    logPart("mapGraphCore: force assign - process deviceNum = %u, graphNum = %u, devUsed = %u",
            plan);
    return 0;
}

// Free devices are left: relieve the busiest.
void GraphMapper::lowDownDevices(CorePlan& plan) {
    plan.beginPart();
    BusyDevices busyDevices(m_newDeviceSet);
    while (DeviceItem* free = getFreeDevice(m_newDeviceSet, plan.freeCursor)) {
        if (plan.deviceNum <= plan.devUsed) break;
        DeviceItem* busy = busyDevices.getMostBusyDevice();
        if (busy == nullptr) break;
        plan.takeDevice();
        relieve(*busy, *free);
        ++plan.partGraphs;
    }
    logPart("mapGraphCore: device lowdown - process deviceNum = %u, graphNum = %u, devUsed = %u",
            plan);
}

void GraphMapper::logPart(const char* format, const CorePlan& plan) {
    LOG_PROC(m_debugProcess, format, plan.partDevices, plan.partGraphs, plan.devUsed);
}

}  // namespace kelm
