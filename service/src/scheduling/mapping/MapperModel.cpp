#include "scheduling/mapping/MapperModel.h"

#include <algorithm>
#include <cmath>
#include <ostream>

#include "scheduling/mapping/CutToInteger.h"
#include "scheduling/mapping/GraphMapperComparer.h"
#include "utils/Log.h"
#include "utils/StepTrace.h"
#include "utils/TextHelper.h"

namespace kelm {

namespace {

// MB, taken for graphs that are added before the first device.
constexpr uint32_t kDefaultDeviceMemSize = 512;
// Headroom that a graph must find on a device to be taken at all.
constexpr double kMemMargin = 1.25;
// Waiting tasks may move by this many either way before a new mapping is due.
constexpr uint32_t kTaskNumSlack = 5;
// A demand may differ from its smoothed value by this part before a new mapping is due.
constexpr double kDemandSlack = 0.1;
// A measure in devices that is beyond all reason: larger ones are cut to it, so that sums over all
// graphs stay finite.
constexpr float kLargestMeasure = 1e30f;

// The fresh measure weighs two thirds, or one third for a graph that is not to be switched out:
// what is heavy and stays should not move at each burst.
float smooth(float measure, float old, bool slaveGroup) {
    const float once = slaveGroup ? old : measure;
    const float twice = slaveGroup ? measure : old;
    return (twice + twice) / 3.0f + once / 3.0f;
}

// A demand of 0 always counts as moved, since a part of it cannot be told.
bool isSameDemand(float smoothed, float measure) {
    if (!(smoothed > 0.0f)) return false;
    const double difference = static_cast<double>(std::fabs(smoothed - measure));
    return difference / static_cast<double>(smoothed) < kDemandSlack;
}

template <class Item>
void eraseItem(std::vector<Item*>& items, const Item* item) {
    items.erase(std::remove(items.begin(), items.end(), item), items.end());
}

}  // namespace

bool MapperModel::addDevice(WorkThread* worker, unsigned int memSize, const std::string& name) {
    if (worker == nullptr) {
        LOG_ERROR("Error in addDevice(%s): worker = nullptr", name);
        return false;
    }
    if (const DeviceItem* known = findDevice(worker)) {
        LOG_ERROR("Error in addDevice(%s): found item(%s) with same devicePtr(%p)", name,
                  known->workerName, worker);
        return true;
    }
    const auto makeItem = [&] {
        auto item = std::make_unique<DeviceItem>();
        item->id = m_deviceCount++;
        item->workerName = name;
        item->worker = worker;
        item->memSize = memSize;
        return item;
    };
    auto item = makeItem();
    item->shadow = makeItem();
    m_deviceSet.push_back(item.get());
    // Both sets grow and shrink together: the n-th shadow belongs to the n-th device.
    m_newDeviceSet.push_back(item->shadow.get());
    m_devicePtrSet[worker] = std::move(item);
    m_deviceChanged = true;
    LOG_STEP("[GraphMapper] addDevice() success: worker=%p name=%s", worker, name);
    return true;
}

bool MapperModel::removeDevice(WorkThread* worker) {
    if (worker == nullptr) {
        LOG_ERROR("Error in removeDevice(): worker = nullptr");
        return false;
    }
    const DeviceItem* item = findDevice(worker);
    if (item == nullptr) {
        LOG_ERROR("Error in removeDevice(): cannot find item with devicePtr(%p)", worker);
        return false;
    }
    // Before the item, which owns the shadow.
    eraseItem(m_newDeviceSet, static_cast<const DeviceItem*>(item->shadow.get()));
    eraseItem(m_deviceSet, item);
    m_devicePtrSet.erase(worker);
    m_deviceChanged = true;
    if (m_deviceSet.empty()) m_deviceCount = 0;  // keeps the ids of the dumps short
    LOG_STEP("[GraphMapper] removeDevice() success: worker=%p", worker);
    return true;
}

bool MapperModel::addGraph(KelmGraph* graph, unsigned int memReq, unsigned int taskNum,
                           const std::string& name, int32_t maxGraphNumPerDevice) {
    if (graph == nullptr) {
        LOG_ERROR("Error in addGraph(%s): graph = nullptr", escapeControls(name));
        return false;
    }
    if (const GraphItem* known = findGraph(graph)) {
        LOG_ERROR("Error in addGraph(%s): found item(%s) with same graphPtr(%p)",
                  escapeControls(name), escapeControls(known->graphName), graph);
        return true;
    }
    // Deliberate: the margin is asked for here only; updateGraph() compares and keeps the bare
    // value.
    const uint32_t memWithMargin = cutToUnsigned(memReq * kMemMargin);
    if (memWithMargin > getDeviceMemSize()) {
        LOG_ERROR(
            "Error in addGraph(%s): graph memory require(%d MB) is larger than device memory(%d "
            "MB)",
            escapeControls(name), memWithMargin, getDeviceMemSize());
        return false;
    }
    auto item = std::make_unique<GraphItem>();
    item->id = m_graphCount++;
    item->graphName = name;
    item->graph = graph;
    item->devReq = static_cast<float>(1.0 / maxGraphNumPerDevice);
    item->memReq = memWithMargin;
    item->isNewGraph = true;
    item->taskNum = static_cast<int32_t>(taskNum);
    item->status = MAPPER_GRAPH_RUN;
    m_graphSet.push_back(item.get());
    m_graphPtrSet[graph] = std::move(item);
    m_graphChanged = true;
    LOG_STEP("[GraphMapper] AddGraph() success: graph=%p name=%s", graph, escapeControls(name));
    return true;
}

bool MapperModel::removeGraph(KelmGraph* graph) {
    if (graph == nullptr) {
        LOG_ERROR("Error in removeGraph(): graph = nullptr");
        return false;
    }
    const GraphItem* item = findGraph(graph);
    if (item == nullptr) {
        LOG_ERROR("Error in removeGraph(): cannot find item with graphPtr(%p)", graph);
        return false;
    }
    // The last plan is kept on the shadows until the next mapping and must not keep the item
    // either.
    for (const DeviceItemSet* devices : {&m_deviceSet, &m_newDeviceSet}) {
        for (DeviceItem* device : *devices) {
            if (device->graphs.empty()) continue;
            device->graphs.erase(item);
            if (device->graphs.empty()) device->reset();
        }
    }
    // The graphs that stay on these devices carry other loads now.
    updateDeviceState(m_deviceSet);
    eraseItem(m_pendingGraphSet, item);
    eraseItem(m_graphSet, item);
    m_graphPtrSet.erase(graph);
    m_graphChanged = true;
    // As for devices: keeps the ids of the dumps short.
    if (m_graphSet.empty()) m_graphCount = 0;
    LOG_STEP("[GraphMapper] removeGraph() success: graph=%p", graph);
    return true;
}

bool MapperModel::updateGraph(KelmGraph* graph, float devReq, unsigned int memReq,
                              unsigned int taskNum) {
    if (graph == nullptr) {
        LOG_ERROR("Error in updateGraph(): graph = nullptr");
        return false;
    }
    GraphItem* item = findGraph(graph);
    if (item == nullptr) {
        LOG_ERROR("Error in updateGraph(): cannot find item with graphPtr(%p)", graph);
        return false;
    }
    if (memReq > getDeviceMemSize()) {
        LOG_ERROR(
            "Error in updateGraph(): graph memory require(%d MB) is larger than device memory(%d "
            "MB)",
            memReq, getDeviceMemSize());
        return false;
    }
    const float measure = boundMeasure(devReq);
    item->devReq = smooth(measure, item->devReq, item->slaveGroup);
    LOG_STEP("%s", item->dump());
    // Unsigned: a count that fell by more than the slack wraps around to a large number.
    const uint32_t moved = taskNum - static_cast<uint32_t>(item->taskNum) + kTaskNumSlack;
    if (!isSameDemand(item->devReq, measure) || moved > 2 * kTaskNumSlack) m_graphChanged = true;
    item->memReq = memReq;
    item->taskNum = static_cast<int32_t>(taskNum);
    // Deliberate: a pending graph too, so that only a pass with a real mapping reports it as out.
    item->status = MAPPER_GRAPH_RUN;
    item->isNewGraph = false;
    return true;
}

float MapperModel::boundMeasure(float devReq) const {
    if (devReq < 0.0f || std::isnan(devReq)) {
        LOG_ERROR("Error in updateGraph: devReq = %f", devReq);
        return 0.0f;
    }
    // Two arrivals within a millisecond measure as infinite. Smoothing keeps an infinite demand for
    // ever, and the demands of all others would scale to 0 beside it: it is cut to all devices.
    if (std::isinf(devReq)) return static_cast<float>(std::max<size_t>(m_deviceSet.size(), 1));
    return std::min(devReq, kLargestMeasure);
}

bool MapperModel::setPendGraph(KelmGraph* graph, bool pend) {
    if (graph == nullptr) {
        LOG_ERROR("Error in setPendGraph(): graph = nullptr");
        return false;
    }
    GraphItem* item = findGraph(graph);
    if (item == nullptr) {
        LOG_ERROR("Error in setPendGraph(): cannot find item with graphPtr(%p)", graph);
        return false;
    }
    // Kept, so that a graph that was at ready comes back as ready.
    if (pend) item->pendSavedStatus = item->status;
    item->status = pend ? MAPPER_GRAPH_PENDING : item->pendSavedStatus;
    m_graphChanged = true;
    return true;
}

bool MapperModel::checkChanged(int32_t maxPendingCycle) {
    // First, as each call counts a cycle for all pending graphs.
    return checkPendingGraphCycle(maxPendingCycle) || m_graphChanged || m_deviceChanged;
}

// No early end: the walk also counts the cycle for each graph.
bool MapperModel::checkPendingGraphCycle(int32_t maxPendingCycle) {
    bool reached = false;
    for (GraphItem* item : m_pendingGraphSet) {
        if (++item->outCycleNum < maxPendingCycle) continue;
        LOG_STEP("Graph reaches max pending cycle number: %s", item->dump());
        reached = true;
    }
    return reached;
}

// A graph that is mapped again starts to count from 0 the next time it is switched out.
void MapperModel::settlePendingGraphs() {
    m_pendingGraphSet.clear();
    for (GraphItem* item : m_graphSet) {
        if (item->status == MAPPER_GRAPH_PENDING) {
            m_pendingGraphSet.push_back(item);
        } else {
            item->outCycleNum = 0;
        }
    }
}

// The graphs of the real devices stay: they are the map in force until a plan has succeeded, and
// what the plan is matched with.
void MapperModel::resetPlan() {
    for (DeviceItem* device : m_deviceSet) {
        device->isFull = false;
        device->isMatched = false;
    }
    for (DeviceItem* shadow : m_newDeviceSet) shadow->reset();
}

DeviceItem* MapperModel::findDevice(WorkThread* worker) const {
    const auto found = m_devicePtrSet.find(worker);
    return found != m_devicePtrSet.end() ? found->second.get() : nullptr;
}

GraphItem* MapperModel::findGraph(KelmGraph* graph) const {
    const auto found = m_graphPtrSet.find(graph);
    return found != m_graphPtrSet.end() ? found->second.get() : nullptr;
}

// The first stands for all: a mapper serves the devices of one kind.
uint32_t MapperModel::getDeviceMemSize() const {
    return m_deviceSet.empty() ? kDefaultDeviceMemSize : m_deviceSet.front()->memSize;
}

uint32_t MapperModel::getGraphNumByStatus(MapperGraphStatus status) const {
    return static_cast<uint32_t>(
        std::count_if(m_graphSet.begin(), m_graphSet.end(),
                      [status](const GraphItem* item) { return item->status == status; }));
}

float MapperModel::getRunGraphSumDevReq() const {
    float sum = 0.0f;
    for (const GraphItem* item : m_graphSet) {
        if (item->status == MAPPER_GRAPH_RUN) sum += item->devReq;
    }
    return sum;
}

std::map<WorkThread*, std::set<KelmGraph*>> MapperModel::getResidentGraphs() const {
    std::map<WorkThread*, std::set<KelmGraph*>> resident;
    for (const DeviceItem* device : m_deviceSet) {
        std::set<KelmGraph*>& graphs = resident[device->worker];
        for (const GraphItem* item : device->graphs) graphs.insert(item->graph);
    }
    return resident;
}

void MapperModel::dumpDevices(std::ostream& out) const {
    out << "m_deviceSet:\n";
    dumpById(out, m_deviceSet);
}

void MapperModel::dumpGraphs(std::ostream& out) const {
    out << "m_graphSet:\n";
    dumpById(out, m_graphSet);
}

}  // namespace kelm
