#include "scheduling/mapping/GraphMapper.h"

#include <algorithm>
#include <cmath>

#include "config/ServiceConfigParser.h"
#include "scheduling/mapping/CutToInteger.h"
#include "utils/Log.h"
#include "utils/TextHelper.h"

namespace kelm {

namespace {

constexpr uint32_t kDefaultDeviceMemSize = 512;
// Waiting tasks may move by this many either way before a new mapping is due.
constexpr uint32_t kTaskNumSlack = 5;
// A measure in devices that is beyond all reason: larger ones are cut to it, so that sums over all
// graphs stay finite.
constexpr float kLargestMeasure = 1e30f;

// The fresh measure weighs two thirds, or one third for a graph that is not to be switched out.
float smooth(float measure, float old, bool slaveGroup) {
    const float once = slaveGroup ? old : measure;
    const float twice = slaveGroup ? measure : old;
    return (twice + twice) / 3.0f + once / 3.0f;
}

bool isSameDemand(float smoothed, float measure) {
    if (!(smoothed > 0.0f)) return false;
    const double difference = static_cast<double>(std::fabs(smoothed - measure));
    return difference / static_cast<double>(smoothed) < 0.1;
}

template <class Item>
void eraseItem(std::vector<Item*>& items, const Item* item) {
    items.erase(std::remove(items.begin(), items.end(), item), items.end());
}

}  // namespace

GraphMapper::GraphMapper()
    : m_debugProcess(ServiceConfigParser::instance().isGraphMapperDebugProcessEnabled()) {}

void GraphMapper::setMaxGraphNumPerDevice(int number) {
    if (number > 0) m_maxGraphNumPerDevice = number;
}

void GraphMapper::setMaxPendingTaskNum(int number) {
    if (number != 0) m_maxPendingTaskNum = number;
}

void GraphMapper::setMaxPendingCycle(int number) {
    if (number != 0) m_maxPendingCycle = number;
}

bool GraphMapper::addDevice(WorkThread* worker, unsigned int memSize, const std::string& name) {
    MutexLock lock(m_mutex);
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
    m_newDeviceSet.push_back(item->shadow.get());
    m_devicePtrSet[worker] = std::move(item);
    m_deviceChanged = true;
    LOG_PROC(m_debugProcess, "[GraphMapper] addDevice() success: worker=%p name=%s", worker, name);
    return true;
}

bool GraphMapper::removeDevice(WorkThread* worker) {
    MutexLock lock(m_mutex);
    if (worker == nullptr) {
        LOG_ERROR("Error in removeDevice(): worker = nullptr");
        return false;
    }
    const DeviceItem* item = findDevice(worker);
    if (item == nullptr) {
        LOG_ERROR("Error in removeDevice(): cannot find item with devicePtr(%p)", worker);
        return false;
    }
    eraseItem(m_newDeviceSet, static_cast<const DeviceItem*>(item->shadow.get()));
    eraseItem(m_deviceSet, item);
    m_devicePtrSet.erase(worker);
    m_deviceChanged = true;
    if (m_deviceSet.empty()) m_deviceCount = 0;
    LOG_PROC(m_debugProcess, "[GraphMapper] removeDevice() success: worker=%p", worker);
    return true;
}

bool GraphMapper::addGraph(KelmGraph* graph, unsigned int memReq, unsigned int taskNum,
                           const std::string& name) {
    MutexLock lock(m_mutex);
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
    const uint32_t memWithMargin = cutToUnsigned(memReq * 1.25);
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
    item->devReq = static_cast<float>(1.0 / m_maxGraphNumPerDevice);
    item->memReq = memWithMargin;
    item->isNewGraph = true;
    item->taskNum = static_cast<int32_t>(taskNum);
    item->status = MAPPER_GRAPH_RUN;
    m_graphSet.push_back(item.get());
    m_graphPtrSet[graph] = std::move(item);
    m_graphChanged = true;
    LOG_PROC(m_debugProcess, "[GraphMapper] AddGraph() success: graph=%p name=%s", graph,
             escapeControls(name));
    return true;
}

bool GraphMapper::removeGraph(KelmGraph* graph) {
    MutexLock lock(m_mutex);
    if (graph == nullptr) {
        LOG_ERROR("Error in removeGraph(): graph = nullptr");
        return false;
    }
    const GraphItem* item = findGraph(graph);
    if (item == nullptr) {
        LOG_ERROR("Error in removeGraph(): cannot find item with graphPtr(%p)", graph);
        return false;
    }
    // The last plan stands on the shadows until the next mapping and must not keep the item either.
    for (const DeviceItemSet* devices : {&m_deviceSet, &m_newDeviceSet}) {
        for (DeviceItem* device : *devices) {
            if (device->graphs.empty()) continue;
            device->graphs.erase(item);
            if (device->graphs.empty()) device->reset();
        }
    }
    updateDeviceState(m_deviceSet);
    if (m_masterGraph == item) m_masterGraph = nullptr;
    eraseItem(m_pendingGraphSet, item);
    eraseItem(m_graphSet, item);
    m_graphPtrSet.erase(graph);
    m_graphChanged = true;
    if (m_graphSet.empty()) m_graphCount = 0;
    LOG_PROC(m_debugProcess, "[GraphMapper] removeGraph() success: graph=%p", graph);
    return true;
}

bool GraphMapper::updateGraph(KelmGraph* graph, float devReq, unsigned int memReq,
                              unsigned int taskNum) {
    MutexLock lock(m_mutex);
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
    LOG_PROC(m_debugProcess, "%s", item->dump());
    const uint32_t moved = taskNum - static_cast<uint32_t>(item->taskNum) + kTaskNumSlack;
    if (!isSameDemand(item->devReq, measure) || moved > 2 * kTaskNumSlack) m_graphChanged = true;
    item->memReq = memReq;
    item->taskNum = static_cast<int32_t>(taskNum);
    // Deliberate: a pending graph too, so that only a pass with a real mapping reports it as out.
    item->status = MAPPER_GRAPH_RUN;
    item->isNewGraph = false;
    return true;
}

float GraphMapper::boundMeasure(float devReq) {
    if (devReq < 0.0f || std::isnan(devReq)) {
        LOG_ERROR("Error in updateGraph: devReq = %f", devReq);
        return 0.0f;
    }
    // Two arrivals within a millisecond measure as infinite. Smoothed, that would never go away and
    // would leave nothing for anybody: such a graph gets what there is.
    if (std::isinf(devReq)) return static_cast<float>(std::max<size_t>(m_deviceSet.size(), 1));
    return std::min(devReq, kLargestMeasure);
}

bool GraphMapper::setPendGraph(KelmGraph* graph, bool pend) {
    MutexLock lock(m_mutex);
    if (graph == nullptr) {
        LOG_ERROR("Error in setPendGraph(): graph = nullptr");
        return false;
    }
    GraphItem* item = findGraph(graph);
    if (item == nullptr) {
        LOG_ERROR("Error in setPendGraph(): cannot find item with graphPtr(%p)", graph);
        return false;
    }
    if (pend) item->pendSavedStatus = item->status;
    item->status = pend ? MAPPER_GRAPH_PENDING : item->pendSavedStatus;
    m_graphChanged = true;
    return true;
}

std::unordered_map<KelmGraph*, bool> GraphMapper::getGraphPendingState() {
    MutexLock lock(m_mutex);
    std::unordered_map<KelmGraph*, bool> states;
    for (const GraphItem* item : m_graphSet) {
        states[item->graph] = item->status == MAPPER_GRAPH_PENDING;
    }
    return states;
}

DeviceItem* GraphMapper::findDevice(WorkThread* worker) {
    const auto found = m_devicePtrSet.find(worker);
    return found != m_devicePtrSet.end() ? found->second.get() : nullptr;
}

GraphItem* GraphMapper::findGraph(KelmGraph* graph) {
    const auto found = m_graphPtrSet.find(graph);
    return found != m_graphPtrSet.end() ? found->second.get() : nullptr;
}

uint32_t GraphMapper::getDeviceMemSize() {
    return m_deviceSet.empty() ? kDefaultDeviceMemSize : m_deviceSet.front()->memSize;
}

uint32_t GraphMapper::getGraphNumByStatus(MapperGraphStatus status) {
    return static_cast<uint32_t>(
        std::count_if(m_graphSet.begin(), m_graphSet.end(),
                      [status](const GraphItem* item) { return item->status == status; }));
}

}  // namespace kelm
