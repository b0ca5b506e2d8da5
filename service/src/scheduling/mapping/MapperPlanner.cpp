#include "scheduling/mapping/MapperPlanner.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <iterator>
#include <utility>

#include "scheduling/mapping/CutToInteger.h"
#include "scheduling/mapping/FractionSelector.h"
#include "scheduling/mapping/MapperModel.h"
#include "utils/Log.h"
#include "utils/StepTrace.h"

namespace kelm {

namespace {

// A graph with more than the golden section of the whole demand dwarfs all others together.
constexpr double kMasterPart = 0.618;
// Of a device: so much more does not give the master another one.
constexpr float kMasterSlack = 0.1f;
// Below it, the balance of all graphs does as well.
constexpr size_t kLeastGraphsForMaster = 5;
constexpr size_t kLeastDevicesForMaster = 2;  // one for the master, one for the others
// A rest below this part of the whole devices is not worth a share of one more.
constexpr double kSmallRest = 0.1;
// Demands below this part of the devices are not stretched to fill them, if graphs have to share.
constexpr float kLeastRatio = 0.5f;

// NaN is not above 0: a graph without demand in a plan of ratio 0 is none of these.
bool isFractionOnly(const GraphItem* item) {
    return item->status == MAPPER_GRAPH_RUN && item->devReqScaled > 0.0f &&
           item->dedicatedDevNum == 0;
}

// Full: nothing may be forced beside a graph that fills the device.
void putWhole(DeviceItem& device, GraphItem& item) {
    device.graphs.assign(&item);
    device.devStatus = MAPPER_GRAPH_RUN;
    device.util = 1.0f;
    device.isFull = true;
    ++item.dedicatedDevNum;
}

// Uses both fractions up, so that neither is found again.
void putPair(DeviceItem& device, GraphItem& first, GraphItem& second) {
    device.graphs.assign(&first, &second);
    device.isFull = true;
    device.util = first.devReqScaled + second.devReqScaled;
    for (GraphItem* item : {&first, &second}) {
        item->devReqScaled = 0.0f;
        item->sharedDevNum = 1;
    }
}

// Not full: a graph that finds no device may be forced beside this one.
void putAlone(DeviceItem& device, GraphItem& item) {
    device.graphs.assign(&item);
    device.isFull = false;
    device.util = item.devReqScaled;
    ++item.dedicatedDevNum;
    item.devReqScaled = 0.0f;
}

// Puts a graph beside the only one of a device, which loses a device of its own thereby.
void putBeside(DeviceItem& device, GraphItem& item) {
    GraphItem* first = device.graphs.find(0);
    device.graphs.setSecond(&item);
    device.isFull = true;
    item.devReqScaled = 0.0f;
    item.sharedDevNum = 1;
    --first->dedicatedDevNum;
    first->sharedDevNum = 1;
}

// Moves the second graph of a busy device to a free one, or copies its only one. The loads stay as
// they are until the end of the plan: a relieved pair weighs its old sum when singles are compared,
// and the device that was free weighs nothing.
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

MapperPlanner::MapperPlanner(MapperModel& model, int32_t maxGraphNumPerDevice, StepTrace trace)
    : m_model(model),
      m_maxGraphNumPerDevice(maxGraphNumPerDevice),
      m_trace(std::move(trace)),
      m_devices(model.shadows()) {}

GraphItem* MapperPlanner::figureOutMapperMode() const {
    GraphItem* busiest = nullptr;
    float most = 0.0f;
    uint32_t count = 0;
    float sum = 0.0f;
    for (GraphItem* item : m_model.graphs()) {
        if (item->status != MAPPER_GRAPH_RUN) continue;
        ++count;
        sum += item->devReq;
        if (!(item->devReq > most)) continue;
        most = item->devReq;
        busiest = item;
    }
    // A device of its own in the last plan: a graph must have proven its demand there before the
    // others are pushed together for it.
    if (count <= 1 || busiest == nullptr || busiest->dedicatedDevNum == 0) return nullptr;
    if (!(static_cast<double>(most / sum) > kMasterPart) || !(most > 1.0f)) return nullptr;
    if (m_model.graphs().size() < kLeastGraphsForMaster) return nullptr;
    return m_model.devices().size() < kLeastDevicesForMaster ? nullptr : busiest;
}

int32_t MapperPlanner::mapRunGraphBalance(uint32_t deviceNum) {
    m_model.resetPlan();
    const int32_t result = mapGraphCore(deviceNum);
    if (result != 0) LOG_STEP("mapRunGraphBalance - failed to mapGraphCore");
    return result;
}

// The master's devices are taken first, out of the same walk; what is left for the others is
// counted by number, so the core never touches them.
int32_t MapperPlanner::mapRunGraphMaster(GraphItem& master, uint32_t deviceNum) {
    m_model.resetPlan();
    const uint32_t masterNum = getMasterDeviceNum(master, deviceNum);
    LOG_STEP("mapRunGraphMaster: masterReqDevNum = %d", masterNum);
    master.dedicatedDevNum = 0;
    master.sharedDevNum = 0;
    while (master.dedicatedDevNum < masterNum) {
        DeviceItem* device = m_devices.getFreeDevice();
        if (device == nullptr) {
            LOG_STEP(
                "mapRunGraphMaster - cannot get enough free device, reqNum = %d, current = %d!",
                masterNum, master.dedicatedDevNum);
            return kHardFailure;
        }
        putWhole(*device, master);
    }
    master.isMasterGraph = true;
    master.status = MAPPER_GRAPH_NONE;  // takes no part in the balance of the others
    const uint32_t slaveNum = deviceNum - masterNum;
    const int32_t result = mapSlaveGraphs(slaveNum);
    master.status = MAPPER_GRAPH_RUN;
    if (result != 0) {
        LOG_STEP("mapRunGraphMaster - failed to call mapGraphCore, slaveDevNum = %d", slaveNum);
    }
    return result;
}

// At least one device is left for the other graphs.
uint32_t MapperPlanner::getMasterDeviceNum(const GraphItem& master, uint32_t deviceNum) const {
    // Its demand, unscaled: what it would fill if the others were not there.
    const float devReq = master.devReq;
    uint32_t masterNum = cutToUnsigned(std::ceil(devReq - kMasterSlack));
    if (masterNum < deviceNum) return masterNum;
    const float part = static_cast<float>(deviceNum) * devReq / m_model.getRunGraphSumDevReq();
    masterNum = cutToUnsigned(std::floor(0.5f + part));
    return std::min(masterNum, deviceNum - 1);
}

// Ready graphs have no demand of their own: each counts as an average one here.
int32_t MapperPlanner::mapSlaveGraphs(uint32_t slaveNum) {
    const float average = m_model.getRunGraphSumDevReq() /
                          static_cast<float>(m_model.getGraphNumByStatus(MAPPER_GRAPH_RUN));
    for (GraphItem* item : m_model.graphs()) {
        item->savedStatus = item->status;
        if (item->status != MAPPER_GRAPH_RDY) continue;
        item->devReq = average;
        item->status = MAPPER_GRAPH_RUN;
    }
    LOG_STEP("mapRunGraphMaster: slaveReqDevNum = %d, freeDevNum = %d", slaveNum,
             m_devices.getFreeDeviceNum());
    const int32_t result = mapGraphCore(slaveNum);
    // Also after a failure: the next try begins with the same states.
    for (GraphItem* item : m_model.graphs()) item->status = item->savedStatus;
    return result;
}

// On the first `deviceNum` free shadows. Places are counted in 64 bits: the graphs per device are a
// setting, and the product must not wrap around.
int32_t MapperPlanner::mapGraphCore(uint32_t deviceNum) {
    m_deviceNum = deviceNum;
    const uint32_t runNum = m_model.getGraphNumByStatus(MAPPER_GRAPH_RUN);
    const int64_t places = int64_t{m_maxGraphNumPerDevice} * deviceNum;
    if (runNum > places) {
        LOG_STEP("mapGraphCore - too much RUN graph, devNum = %u, graphNum = %u", deviceNum,
                 runNum);
        return static_cast<int32_t>(runNum - places);
    }
    m_ratio = getCompressRatio(runNum);
    LOG_STEP("mapGraphCore: compress ratio = %.2f", m_ratio);
    if (const int32_t result = mapIntegerPart(); result != 0) return result;
    mapFractionPart();
    if (const int32_t result = forceAssign(); result != 0) return result;
    lowDownDevices();
    // The parts have used the scaled demands up; the load of a device is worked out from them.
    for (GraphItem* item : m_model.graphs()) {
        if (item->status == MAPPER_GRAPH_RUN) item->devReqScaled = item->devReq / m_ratio;
    }
    updateDeviceState(m_model.shadows());
    return 0;
}

// Divided by it, the demands add up to the number of devices.
float MapperPlanner::getCompressRatio(uint32_t runNum) const {
    const float sum = m_model.getRunGraphSumDevReq();
    const float ratio = sum / static_cast<float>(m_deviceNum);
    if (kLeastRatio > ratio && runNum > m_deviceNum) return 1.0f;
    // Divided by less than this, a demand may leave the range of numbers.
    if (sum > 0.0f && ratio < FLT_MIN) return 1.0f;
    // Deliberate: may be 0. Graphs that ask for nothing get no device then, see mapIntegerPart().
    return ratio;
}

// Whole devices for the graphs that fill them. Sums of rounded parts may ask for more devices than
// there are: those that come last in the walk then get fewer.
int32_t MapperPlanner::mapIntegerPart() {
    beginPart();
    for (GraphItem* item : m_model.graphs()) {
        if (item->status != MAPPER_GRAPH_RUN) continue;
        item->dedicatedDevNum = 0;
        item->sharedDevNum = 0;
        item->devReqScaled = item->devReq / m_ratio;
        if (!(item->devReqScaled >= 1.0f)) continue;  // NaN too: nothing over nothing
        if (const int32_t result = giveWholeDevices(*item); result != 0) return result;
        ++m_partGraphs;
    }
    logPart("mapGraphCore: integer part - process deviceNum = %u, graphNum = %u, devUsed = %u");
    return 0;
}

int32_t MapperPlanner::giveWholeDevices(GraphItem& item) {
    // The rest is dropped against the whole: 10.5 keeps no claim to half a device, 2.5 does.
    const float floored = std::floor(item.devReqScaled);
    item.devReqScaled -= floored;
    if (static_cast<double>(item.devReqScaled / floored) < kSmallRest) item.devReqScaled = 0.0f;
    for (uint32_t whole = cutToUnsigned(floored); whole > 0; --whole) {
        DeviceItem* device = m_devices.getFreeDevice();
        if (device == nullptr) {
            LOG_STEP(
                "mapGraphCore - cannot get free device when map RUN device, devNum = %u, "
                "devUsed = %u",
                m_deviceNum, m_devUsed);
            return kHardFailure;
        }
        if (m_devUsed >= m_deviceNum) break;
        putWhole(*device, item);
        takeDevice();
    }
    return 0;
}

// The fractions, by pairs that fill a device where they are found.
void MapperPlanner::mapFractionPart() {
    beginPart();
    FractionSelector selector(m_model.graphs(), m_model.getDeviceMemSize());
    const bool mayPair = m_maxGraphNumPerDevice == 2;
    while (DeviceItem* device = m_devices.getFreeDevice()) {
        GraphItem* first = selector.chooseFirstGraphForDevice();
        if (first == nullptr || m_devUsed >= m_deviceNum) break;
        takeDevice();
        GraphItem* match = mayPair ? selector.chooseMatchGraph(*first) : nullptr;
        // A match that has as many devices as it asks for needs no share of another.
        if (match != nullptr &&
            static_cast<double>(match->dedicatedDevNum) < static_cast<double>(match->devReq)) {
            putPair(*device, *first, *match);
            m_partGraphs += 2;
        } else {
            putAlone(*device, *first);
            ++m_partGraphs;
        }
        device->devStatus = MAPPER_GRAPH_RUN;
    }
    logPart("mapGraphCore: fraction part - process deviceNum = %u, graphNum = %u, devUsed = %u");
}

// Graphs that have no device yet are put beside the graphs that load theirs least. A large rest of
// a graph that has a device waits for a later cycle.
int32_t MapperPlanner::forceAssign() {
    beginPart();
    const GraphItemSet left = findGraphFractionOnly();
    for (size_t done = 0; done < left.size(); ++done) {
        GraphItem* item = left[done];
        DeviceItem* device = m_maxGraphNumPerDevice != 1
                                 ? m_devices.getLeastBusyDedicatedDevice(item->memReq)
                                 : nullptr;
        if (device == nullptr) {
            const uint32_t leftNum = static_cast<uint32_t>(left.size() - done);
            LOG_STEP(
                "mapGraphCore - failed to force assign the left fraction-only graph to a "
                "proper device, numGraphLeft = %u",
                leftNum);
            return static_cast<int32_t>(leftNum);
        }
        putBeside(*device, *item);
        ++m_partDevices;
        ++m_partGraphs;
    }
    logPart("mapGraphCore: force assign - process deviceNum = %u, graphNum = %u, devUsed = %u");
    return 0;
}

// Free devices are left: relieve the busiest.
void MapperPlanner::lowDownDevices() {
    beginPart();
    while (DeviceItem* free = m_devices.getFreeDevice()) {
        if (m_deviceNum <= m_devUsed) break;
        DeviceItem* busy = m_devices.getMostBusyDevice();
        if (busy == nullptr) break;
        takeDevice();
        relieve(*busy, *free);
        ++m_partGraphs;
    }
    logPart("mapGraphCore: device lowdown - process deviceNum = %u, graphNum = %u, devUsed = %u");
}

// The largest fraction first: it is the hardest to place.
GraphItemSet MapperPlanner::findGraphFractionOnly() const {
    GraphItemSet found;
    std::copy_if(m_model.graphs().begin(), m_model.graphs().end(), std::back_inserter(found),
                 isFractionOnly);
    std::stable_sort(found.begin(), found.end(), [](const GraphItem* left, const GraphItem* right) {
        return left->devReqScaled > right->devReqScaled;
    });
    return found;
}

void MapperPlanner::takeDevice() {
    ++m_devUsed;
    ++m_partDevices;
}

void MapperPlanner::logPart(const char* format) const {
    LOG_STEP(format, m_partDevices, m_partGraphs, m_devUsed);
}

}  // namespace kelm
