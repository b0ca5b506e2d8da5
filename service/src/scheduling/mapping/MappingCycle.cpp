#include "scheduling/mapping/MappingCycle.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <iostream>
#include <iterator>
#include <utility>

#include "scheduling/mapping/CutToInteger.h"
#include "scheduling/mapping/GraphMapperComparer.h"
#include "scheduling/mapping/MapperMatcher.h"
#include "scheduling/mapping/MapperModel.h"
#include "scheduling/mapping/MapperPlanner.h"
#include "scheduling/mapping/ReadyPlacer.h"
#include "utils/Log.h"
#include "utils/StepTrace.h"

namespace kelm {

namespace {

constexpr const char* kLogName = "GraphMapper";

double millisecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
}

}  // namespace

MappingCycle::MappingCycle(MapperModel& model, MapperMatcher& matcher, const MapperLimits& limits,
                           StepTrace trace)
    : m_model(model), m_matcher(matcher), m_limits(limits), m_trace(std::move(trace)) {}

bool MappingCycle::run() {
    LOG_STEP("Graph mapping - Device Number: %lu, Graph Number: %lu", m_model.devices().size(),
             m_model.graphs().size());
    // Deliberate: the model still says changed in both of these cases, so the next call comes here
    // again.
    if (m_model.devices().empty()) {
        LOG_STEP("Not need map graph due to no device!");
        return true;
    }
    if (m_model.graphs().empty()) return true;
    const auto start = std::chrono::steady_clock::now();
    // All come back at the start: each cycle chooses anew which graphs it leaves out.
    returnPendingGraphs();
    if (!fitGraphs()) {
        abandonMapping();
        return false;
    }
    m_model.settlePendingGraphs();
    m_model.clearChanged();
    LOG_STEP("Graph mapping is done, cost %.2f ms", millisecondsSince(start));
    return true;
}

// Switches graphs out until the rest fits. `total` only grows, and filterGraphs() fails when it
// exceeds the number of graphs, so that this ends.
bool MappingCycle::fitGraphs() {
    int32_t result = doMapGraph();
    int32_t total = result;
    while (result > 0) {
        if (!filterGraphs(total)) return false;
        result = doMapGraph();
        total += result;
    }
    return result == 0;
}

// The map in force has no place for the graphs that were out before.
void MappingCycle::abandonMapping() {
    LOG_ERROR_OF(kLogName, "Failed to map graph!!!");
    for (GraphItem* item : m_model.graphs()) {
        if (item->outCycleNum > 0) item->status = MAPPER_GRAPH_PENDING;
    }
}

// The count of cycles stays: it is the claim of those that have been out for long.
void MappingCycle::returnPendingGraphs() {
    for (GraphItem* item : m_model.graphs()) {
        if (item->status == MAPPER_GRAPH_PENDING) item->status = MAPPER_GRAPH_RUN;
    }
}

// Tells at once when there are more graphs than places, before a plan is begun that cannot succeed.
int32_t MappingCycle::doMapGraph() {
    const uint32_t deviceNum = static_cast<uint32_t>(m_model.devices().size());
    const int64_t places = int64_t{m_limits.maxGraphNumPerDevice} * deviceNum;
    const uint32_t runNum = m_model.getGraphNumByStatus(MAPPER_GRAPH_RUN);
    if (places < runNum) {
        LOG_STEP("doMapGraph - too much graphs, graphNum=(%u, max=%u)", runNum,
                 static_cast<uint32_t>(places));
        return static_cast<int32_t>(runNum - places);
    }
    refreshDeviceStatus();
    MapperPlanner planner(m_model, m_limits.maxGraphNumPerDevice, m_trace);
    if (GraphItem* master = planner.figureOutMapperMode()) {
        LOG_STEP("mapRunGraphMaster: deviceNum = %u", deviceNum);
        const int32_t result = planner.mapRunGraphMaster(*master, deviceNum);
        // Only a plan that fits is laid over the real devices; else the map in force stays.
        if (result == 0) m_matcher.mapGraphPost(m_model);
        if (result != 0) LOG_STEP("doMapGraph - failed to mapRunGraphMaster");
        return result;
    }
    const uint32_t rdyNum = m_model.getGraphNumByStatus(MAPPER_GRAPH_RDY);
    if (rdyNum == 0) {
        LOG_STEP("mapRunGraphBalance: deviceNum = %u, runGraphNum = %d", deviceNum, runNum);
        return mapRunGraphBalance(deviceNum);
    }
    if (runNum == 0) {
        LOG_STEP("mapRdyGraphBalance: deviceNum = %lu, rdyGraphNum = %d", m_model.devices().size(),
                 rdyNum);
        return mapRdyGraphBalance(rdyNum, deviceNum);
    }
    return doMapBothKinds(rdyNum, runNum);
}

// Divides the devices between ready and running graphs: the running ones get what their demand
// fills, and each kind at least the devices that its number of graphs takes.
int32_t MappingCycle::doMapBothKinds(uint32_t rdyNum, uint32_t runNum) {
    const int64_t maxGraphs = m_limits.maxGraphNumPerDevice;
    const int64_t deviceNum = static_cast<int64_t>(m_model.devices().size());
    const float runNeed = std::ceil(m_model.getRunGraphSumDevReq());
    const int64_t rdyMin = (int64_t{rdyNum} + 1) / maxGraphs;
    const int64_t runMin = (int64_t{runNum} + 1) / maxGraphs;
    // In double, and cut at 0: the demand may be far above the number of devices.
    const double left = static_cast<double>(deviceNum) - static_cast<double>(runNeed);
    int64_t rdyDev = std::max(rdyMin, int64_t{cutToUnsigned(left)});
    int64_t runDev = deviceNum - rdyDev;
    // The ready graphs took too much: the running ones get their least number of devices back.
    if (maxGraphs * runDev < runNum) {
        runDev = runMin;
        rdyDev = deviceNum - runMin;
    } else if (runMin > runDev) {
        LOG_STEP("doMapGraph - too much graphs, RUN=(%d, min=%d)", runNum, runMin);
        return static_cast<int32_t>(runNum - runDev * maxGraphs);
    }
    if (rdyMin > rdyDev) {
        LOG_STEP("doMapGraph - too much graphs, RDY=(%d, min=%d)", rdyNum, rdyMin);
        return static_cast<int32_t>(rdyNum - rdyDev * maxGraphs);
    }
    LOG_STEP("doMapGraph: deviceNumWithRunGraph = %d, runGraphNum = %d", runDev, runNum);
    LOG_STEP("doMapGraph: deviceNumWithRdyGraph = %d, rdyGraphNum = %d", rdyDev, rdyNum);
    int32_t result = mapRunGraphBalance(static_cast<uint32_t>(runDev));
    if (result != 0) {
        LOG_STEP(
            "doMapGraph - Failed to map for RUN graphs, runGraphNum = %d, "
            "deviceNumWithRunGraph = %d",
            runNum, runDev);
        return result;
    }
    result = mapRdyGraphBalance(rdyNum, static_cast<uint32_t>(rdyDev));
    if (result != 0) {
        LOG_STEP(
            "doMapGraph - Failed to map for RDY graphs, rdyGraphNum = %d, "
            "deviceNumWithRdyGraph = %d",
            rdyNum, rdyDev);
    }
    return result;
}

int32_t MappingCycle::mapRunGraphBalance(uint32_t deviceNum) {
    MapperPlanner planner(m_model, m_limits.maxGraphNumPerDevice, m_trace);
    const int32_t result = planner.mapRunGraphBalance(deviceNum);
    if (result != 0) return result;
    m_matcher.mapGraphPost(m_model);
    m_model.clearGraphChanged();
    return 0;
}

int32_t MappingCycle::mapRdyGraphBalance(uint32_t rdyNum, uint32_t deviceNum) {
    // On the real devices, after the running graphs have been laid over them.
    ReadyPlacer placer(m_model, m_limits.maxGraphNumPerDevice, m_trace);
    return placer.mapRdyGraphBalance(rdyNum, deviceNum);
}

// A device that holds nothing but pending graphs counts as free, and loses them.
void MappingCycle::refreshDeviceStatus() {
    for (DeviceItem* device : m_model.devices()) {
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

bool MappingCycle::filterGraphs(int outGraphNum) {
    if (outGraphNum < 1) {
        LOG_STEP("filerGraphs: outGraphNum=%d, Not need do it!", outGraphNum);
        return false;
    }
    const size_t outNum = static_cast<size_t>(outGraphNum);
    GraphItemSet candidates;
    std::copy_if(m_model.graphs().begin(), m_model.graphs().end(), std::back_inserter(candidates),
                 [](const GraphItem* item) { return item->slaveGroup; });
    // Graphs that should stay are switched out only when the others are too few.
    if (candidates.size() < outNum) candidates = m_model.graphs();
    if (candidates.size() < outNum) {
        LOG_ERROR_OF(kLogName,
                     "Error in filerGraphs(): leftNum=%u slaveGraphNum=%lu, too much switch out "
                     "graphs!!!",
                     static_cast<uint32_t>(outGraphNum), candidates.size());
        dumpTooManyOut(candidates);
        return false;
    }
    LOG_STEP("Need to filter out graphs number = %d", outGraphNum);
    const GraphItemSet outList = sortForSwitchOut(candidates);
    returnPendingGraphs();  // the choice starts anew, with the whole number
    for (size_t i = 0; i < outNum; ++i) outList[i]->status = MAPPER_GRAPH_PENDING;
    return true;
}

// Stable sorts throughout: among equals the first in the walk is switched out first.
GraphItemSet MappingCycle::sortForSwitchOut(const GraphItemSet& candidates) const {
    GraphItemSet outList;    // the least busy first
    GraphItemSet overdue;    // out for long, or with many tasks: kept in if at all possible
    GraphItemSet newGraphs;  // last: their demand has not been measured yet
    outList.reserve(candidates.size());
    for (GraphItem* item : candidates) {
        const bool waitedLong = item->outCycleNum > m_limits.maxPendingCycle && item->taskNum >= 1;
        const bool manyTasks = item->outCycleNum >= 1 && item->taskNum > m_limits.maxPendingTaskNum;
        (item->isNewGraph          ? newGraphs
         : waitedLong || manyTasks ? overdue
                                   : outList)
            .push_back(item);
    }
    std::stable_sort(
        outList.begin(), outList.end(),
        [](const GraphItem* left, const GraphItem* right) { return left->devReq < right->devReq; });
    std::stable_sort(
        overdue.begin(), overdue.end(), [](const GraphItem* left, const GraphItem* right) {
            return left->outCycleNum != right->outCycleNum ? left->outCycleNum < right->outCycleNum
                                                           : left->taskNum < right->taskNum;
        });
    std::stable_sort(newGraphs.begin(), newGraphs.end(),
                     [](const GraphItem* left, const GraphItem* right) {
                         return left->taskNum < right->taskNum;
                     });
    outList.insert(outList.end(), overdue.begin(), overdue.end());
    outList.insert(outList.end(), newGraphs.begin(), newGraphs.end());
    return outList;
}

void MappingCycle::dumpTooManyOut(const GraphItemSet& candidates) const {
    std::cout << "** -------------------------------\n"
              << "\n** Dump deviceSet:\n";
    m_model.dumpDevices(std::cout);
    std::cout << "** Dump graphSet:\n";
    m_model.dumpGraphs(std::cout);
    std::cout << "** Dump slaveGraphSet:\n";
    dumpById(std::cout, candidates);
    std::cout << "** ------------ END ------------\n";
}

}  // namespace kelm
