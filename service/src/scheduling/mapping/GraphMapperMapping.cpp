#include <chrono>
#include <cmath>

#include "scheduling/mapping/CutToInteger.h"
#include "scheduling/mapping/GraphMapper.h"
#include "utils/Log.h"

namespace kelm {

namespace {

constexpr double kMasterPart = 0.618;  // of the whole demand
// Of a device: so much more does not give the master another one.
constexpr float kMasterSlack = 0.1f;
constexpr size_t kLeastGraphsForMaster = 5;
constexpr size_t kLeastDevicesForMaster = 2;  // one for the master, one for the others
constexpr int32_t kHardFailure = -1;

double millisecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
}

}  // namespace

bool GraphMapper::mapGraph() {
    MutexLock lock(m_mutex);
    if (!checkChanged()) {
        LOG_PROC(m_debugProcess, "Not need map graph due to no changed");
        return true;
    }
    LOG_PROC(m_debugProcess, "Graph mapping - Device Number: %lu, Graph Number: %lu",
             m_deviceSet.size(), m_graphSet.size());
    // Deliberate: the flags stay set in both of these cases, so the next call comes here again.
    if (m_deviceSet.empty()) {
        LOG_PROC(m_debugProcess, "Not need map graph due to no device!");
        m_mapResult.clear();
        return true;
    }
    if (m_graphSet.empty()) {
        m_mapResult.clear();
        for (const DeviceItem* device : m_deviceSet) m_mapResult[device->worker];
        return true;
    }
    const auto start = std::chrono::steady_clock::now();
    for (GraphItem* item : m_graphSet) {
        if (item->status == MAPPER_GRAPH_PENDING) item->status = MAPPER_GRAPH_RUN;
    }
    if (!fitGraphs()) return abandonMapping();
    commitMapping();
    LOG_PROC(m_debugProcess, "Graph mapping is done, cost %.2f ms", millisecondsSince(start));
    return true;
}

// Switches graphs out until the rest fits.
bool GraphMapper::fitGraphs() {
    int32_t result = doMapGraph();
    int32_t total = result;
    while (result > 0) {
        if (!filterGraphs(total)) return false;
        result = doMapGraph();
        total += result;
    }
    return result == 0;
}

bool GraphMapper::abandonMapping() {
    LOG_ERROR_OF(m_name.c_str(), "Failed to map graph!!!");
    for (GraphItem* item : m_graphSet) {
        if (item->outCycleNum > 0) item->status = MAPPER_GRAPH_PENDING;
    }
    return false;
}

void GraphMapper::commitMapping() {
    m_pendingGraphSet.clear();
    for (GraphItem* item : m_graphSet) {
        if (item->status == MAPPER_GRAPH_PENDING) {
            m_pendingGraphSet.push_back(item);
        } else {
            item->outCycleNum = 0;
        }
    }
    m_mapResult.clear();
    for (const DeviceItem* device : m_deviceSet) {
        std::set<KelmGraph*>& graphs = m_mapResult[device->worker];
        for (const GraphItem* item : device->graphs) graphs.insert(item->graph);
    }
    m_graphChanged = false;
    m_deviceChanged = false;
}

int32_t GraphMapper::doMapGraph() {
    const uint32_t deviceNum = static_cast<uint32_t>(m_deviceSet.size());
    const int64_t places = int64_t{m_maxGraphNumPerDevice} * deviceNum;
    uint32_t runNum = getGraphNumByStatus(MAPPER_GRAPH_RUN);
    if (places < runNum) {
        LOG_PROC(m_debugProcess, "doMapGraph - too much graphs, graphNum=(%u, max=%u)", runNum,
                 static_cast<uint32_t>(places));
        return static_cast<int32_t>(runNum - places);
    }
    refreshDeviceStatus();
    figureOutMapperMode();
    if (m_mapperMode == 1) {
        LOG_PROC(m_debugProcess, "mapRunGraphMaster: deviceNum = %u", deviceNum);
        const int32_t result = mapRunGraphMaster(deviceNum);
        if (result != 0) LOG_PROC(m_debugProcess, "doMapGraph - failed to mapRunGraphMaster");
        return result;
    }
    const uint32_t rdyNum = getGraphNumByStatus(MAPPER_GRAPH_RDY);
    runNum = getGraphNumByStatus(MAPPER_GRAPH_RUN);
    if (rdyNum == 0) {
        LOG_PROC(m_debugProcess, "mapRunGraphBalance: deviceNum = %u, runGraphNum = %d", deviceNum,
                 runNum);
        return mapRunGraphBalance(deviceNum);
    }
    if (runNum == 0) {
        LOG_PROC(m_debugProcess, "mapRdyGraphBalance: deviceNum = %lu, rdyGraphNum = %d",
                 m_deviceSet.size(), rdyNum);
        return mapRdyGraphBalance(rdyNum, deviceNum);
    }
    return doMapBothKinds(rdyNum, runNum);
}

// Divides the devices between ready and running graphs.
int32_t GraphMapper::doMapBothKinds(uint32_t rdyNum, uint32_t runNum) {
    const int64_t maxGraphs = m_maxGraphNumPerDevice;
    const int64_t deviceNum = static_cast<int64_t>(m_deviceSet.size());
    const float runNeed = std::ceil(getRunGraphSumDevReq());
    const int64_t rdyMin = (int64_t{rdyNum} + 1) / maxGraphs;
    const int64_t runMin = (int64_t{runNum} + 1) / maxGraphs;
    const double left = static_cast<double>(deviceNum) - static_cast<double>(runNeed);
    int64_t rdyDev = std::max(rdyMin, int64_t{cutToUnsigned(left)});
    int64_t runDev = deviceNum - rdyDev;
    if (maxGraphs * runDev < runNum) {
        runDev = runMin;
        rdyDev = deviceNum - runMin;
    } else if (runMin > runDev) {
        LOG_PROC(m_debugProcess, "doMapGraph - too much graphs, RUN=(%d, min=%d)", runNum, runMin);
        return static_cast<int32_t>(runNum - runDev * maxGraphs);
    }
    if (rdyMin > rdyDev) {
        LOG_PROC(m_debugProcess, "doMapGraph - too much graphs, RDY=(%d, min=%d)", rdyNum, rdyMin);
        return static_cast<int32_t>(rdyNum - rdyDev * maxGraphs);
    }
    LOG_PROC(m_debugProcess, "doMapGraph: deviceNumWithRunGraph = %d, runGraphNum = %d", runDev,
             runNum);
    LOG_PROC(m_debugProcess, "doMapGraph: deviceNumWithRdyGraph = %d, rdyGraphNum = %d", rdyDev,
             rdyNum);
    int32_t result = mapRunGraphBalance(static_cast<uint32_t>(runDev));
    if (result != 0) {
        LOG_PROC(m_debugProcess,
                 "doMapGraph - Failed to map for RUN graphs, runGraphNum = %d, "
                 "deviceNumWithRunGraph = %d",
                 runNum, runDev);
        return result;
    }
    result = mapRdyGraphBalance(rdyNum, static_cast<uint32_t>(rdyDev));
    if (result != 0) {
        LOG_PROC(m_debugProcess,
                 "doMapGraph - Failed to map for RDY graphs, rdyGraphNum = %d, "
                 "deviceNumWithRdyGraph = %d",
                 rdyNum, rdyDev);
    }
    return result;
}

void GraphMapper::refreshDeviceStatus() {
    for (DeviceItem* device : m_deviceSet) {
        device->devStatus = MAPPER_GRAPH_NONE;
        for (const GraphItem* item : device->graphs) {
            if (item->status == MAPPER_GRAPH_RUN) device->devStatus = MAPPER_GRAPH_RUN;
            if (item->status == MAPPER_GRAPH_RDY) {
                device->devStatus = MAPPER_GRAPH_RDY;
                break;
            }
        }
        if (device->devStatus == MAPPER_GRAPH_NONE) device->graphs.clear();
    }
}

void GraphMapper::resetPlan() {
    for (DeviceItem* device : m_deviceSet) {
        device->isFull = false;
        device->isMatched = false;
    }
    for (DeviceItem* shadow : m_newDeviceSet) shadow->reset();
}

// Decides whether one graph dwarfs the others.
bool GraphMapper::figureOutMapperMode() {
    m_mapperMode = 0;
    m_masterGraph = nullptr;
    GraphItem* busiest = nullptr;
    float most = 0.0f;
    uint32_t count = 0;
    float sum = 0.0f;
    for (GraphItem* item : m_graphSet) {
        if (item->status != MAPPER_GRAPH_RUN) continue;
        ++count;
        sum += item->devReq;
        if (!(item->devReq > most)) continue;
        most = item->devReq;
        busiest = item;
    }
    if (count <= 1 || busiest == nullptr || busiest->dedicatedDevNum == 0) return true;
    if (!(static_cast<double>(most / sum) > kMasterPart) || !(most > 1.0f)) return true;
    if (m_graphSet.size() < kLeastGraphsForMaster) return true;
    if (m_deviceSet.size() < kLeastDevicesForMaster) return true;
    m_mapperMode = 1;
    m_masterGraph = busiest;
    return true;
}

int32_t GraphMapper::mapRunGraphBalance(uint32_t deviceNum) {
    resetPlan();
    const int32_t result = mapGraphCore(deviceNum);
    if (result != 0) {
        LOG_PROC(m_debugProcess, "mapRunGraphBalance - failed to mapGraphCore");
        return result;
    }
    mapGraphPost();
    m_graphChanged = false;
    return 0;
}

int32_t GraphMapper::mapRdyGraphBalance(uint32_t rdyGraphNum, uint32_t deviceNum) {
    uint32_t freeNum = 0;
    for (DeviceItem* device : m_deviceSet) {
        if (device->devStatus == MAPPER_GRAPH_RDY) device->devStatus = MAPPER_GRAPH_NONE;
        if (device->devStatus != MAPPER_GRAPH_NONE) continue;
        ++freeNum;
        device->graphs.clear();
    }
    if (freeNum != deviceNum) {
        LOG_PROC(m_debugProcess,
                 "mapRdyGraphBalance - device number is mismatch, current = %d, request = %d!",
                 freeNum, deviceNum);
        return kHardFailure;
    }
    const int64_t places = int64_t{m_maxGraphNumPerDevice} * deviceNum;
    if (places < rdyGraphNum) {
        LOG_PROC(m_debugProcess,
                 "mapRdyGraphBalance - rdyGraph is too much, rdyGraphNum = %d, deviceNum = %d!",
                 rdyGraphNum, deviceNum);
        return static_cast<int32_t>(rdyGraphNum - places);
    }
    return rdyGraphNum > deviceNum ? pairRdyGraphs() : spreadRdyGraphs(rdyGraphNum, deviceNum);
}

// More graphs than devices: a device each while there are any, then as second graphs.
int32_t GraphMapper::pairRdyGraphs() {
    size_t cursor = 0;
    for (GraphItem* item : m_graphSet) {
        if (item->status != MAPPER_GRAPH_RDY) continue;
        item->dedicatedDevNum = 0;
        item->sharedDevNum = 0;
        if (DeviceItem* device = getFreeDevice(m_deviceSet, cursor)) {
            item->dedicatedDevNum = 1;
            device->graphs.assign(item);
            device->devStatus = MAPPER_GRAPH_RDY;
            continue;
        }
        DeviceItem* device = getRdyDevice(m_deviceSet, item->memReq);
        if (device == nullptr) return kHardFailure;
        GraphItem* first = device->graphs.find(0);
        item->sharedDevNum = 1;
        device->graphs.setSecond(item);
        first->dedicatedDevNum = 0;
        first->sharedDevNum = 1;
    }
    return 0;
}

// At least a device for each graph; the first graphs get what does not divide evenly.
int32_t GraphMapper::spreadRdyGraphs(uint32_t rdyGraphNum, uint32_t deviceNum) {
    const uint32_t share = deviceNum / rdyGraphNum;
    uint32_t rest = deviceNum % rdyGraphNum;
    size_t cursor = 0;
    for (GraphItem* item : m_graphSet) {
        if (item->status != MAPPER_GRAPH_RDY) continue;
        uint32_t wanted = share;
        if (rest > 0) {
            ++wanted;
            --rest;
        }
        for (; wanted > 0; --wanted) {
            DeviceItem* device = getFreeDevice(m_deviceSet, cursor);
            if (device == nullptr) return kHardFailure;
            ++item->dedicatedDevNum;
            device->graphs.assign(item);
            device->devStatus = MAPPER_GRAPH_RDY;
        }
    }
    return 0;
}

int32_t GraphMapper::mapRunGraphMaster(uint32_t deviceNum) {
    if (m_masterGraph == nullptr) {
        LOG_PROC(m_debugProcess, "mapRunGraphMaster - masterGraph=nullptr");
        return 0;
    }
    resetPlan();
    const uint32_t masterNum = getMasterDeviceNum(deviceNum);
    LOG_PROC(m_debugProcess, "mapRunGraphMaster: masterReqDevNum = %d", masterNum);
    GraphItem& master = *m_masterGraph;
    master.dedicatedDevNum = 0;
    master.sharedDevNum = 0;
    size_t cursor = 0;
    while (master.dedicatedDevNum < masterNum) {
        DeviceItem* device = getFreeDevice(m_newDeviceSet, cursor);
        if (device == nullptr) {
            LOG_PROC(
                m_debugProcess,
                "mapRunGraphMaster - cannot get enough free device, reqNum = %d, current = %d!",
                masterNum, master.dedicatedDevNum);
            return kHardFailure;
        }
        device->graphs.assign(&master);
        device->devStatus = MAPPER_GRAPH_RUN;
        device->util = 1.0f;
        device->isFull = true;
        ++master.dedicatedDevNum;
    }
    master.isMasterGraph = true;
    master.status = MAPPER_GRAPH_NONE;  // out of the balance of the others
    const uint32_t slaveNum = deviceNum - masterNum;
    const int32_t result = mapSlaveGraphs(slaveNum);
    master.status = MAPPER_GRAPH_RUN;
    if (result != 0) {
        LOG_PROC(m_debugProcess,
                 "mapRunGraphMaster - failed to call mapGraphCore, slaveDevNum = %d", slaveNum);
        return result;
    }
    updateDeviceState(m_newDeviceSet);
    mapGraphPost();
    return 0;
}

// At least one device is left for the other graphs.
uint32_t GraphMapper::getMasterDeviceNum(uint32_t deviceNum) {
    const float devReq = m_masterGraph->devReq;
    uint32_t masterNum = cutToUnsigned(std::ceil(devReq - kMasterSlack));
    if (masterNum < deviceNum) return masterNum;
    const float part = static_cast<float>(deviceNum) * devReq / getRunGraphSumDevReq();
    masterNum = cutToUnsigned(std::floor(0.5f + part));
    return std::min(masterNum, deviceNum - 1);
}

int32_t GraphMapper::mapSlaveGraphs(uint32_t slaveNum) {
    const float average =
        getRunGraphSumDevReq() / static_cast<float>(getGraphNumByStatus(MAPPER_GRAPH_RUN));
    for (GraphItem* item : m_graphSet) {
        item->savedStatus = item->status;
        if (item->status != MAPPER_GRAPH_RDY) continue;
        item->devReq = average;
        item->status = MAPPER_GRAPH_RUN;
    }
    LOG_PROC(m_debugProcess, "mapRunGraphMaster: slaveReqDevNum = %d, freeDevNum = %d", slaveNum,
             getFreeDeviceNum(m_newDeviceSet));
    const int32_t result = mapGraphCore(slaveNum);
    for (GraphItem* item : m_graphSet) item->status = item->savedStatus;
    return result;
}

}  // namespace kelm
