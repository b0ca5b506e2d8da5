#include "scheduling/mapping/GraphMapper.h"

#include <iostream>

#include "config/ServiceConfigParser.h"
#include "scheduling/mapping/GraphMapperComparer.h"
#include "utils/Log.h"
#include "utils/StepTrace.h"

namespace kelm {

namespace {

constexpr const char* kLine = "------------------------------------------\n";  // 42

void dumpMapEntry(std::ostream& out, const void* worker, const std::set<KelmGraph*>& graphs) {
    out << "worker(" << worker << ") - [";
    for (const KelmGraph* graph : graphs) out << static_cast<const void*>(graph) << " ";
    out << "]\n";
}

}  // namespace

GraphMapper::GraphMapper()
    : m_trace(ServiceConfigParser::instance().isGraphMapperDebugProcessEnabled()),
      m_model(m_trace),
      m_matcher(m_trace) {}

// 0 leaves the default in force; here a number below 0 does, too.
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
    return m_model.addDevice(worker, memSize, name);
}

bool GraphMapper::removeDevice(WorkThread* worker) {
    MutexLock lock(m_mutex);
    return m_model.removeDevice(worker);
}

bool GraphMapper::addGraph(KelmGraph* graph, unsigned int memReq, unsigned int taskNum,
                           const std::string& name) {
    MutexLock lock(m_mutex);
    return m_model.addGraph(graph, memReq, taskNum, name, m_maxGraphNumPerDevice);
}

bool GraphMapper::removeGraph(KelmGraph* graph) {
    MutexLock lock(m_mutex);
    return m_model.removeGraph(graph);
}

bool GraphMapper::updateGraph(KelmGraph* graph, float devReq, unsigned int memReq,
                              unsigned int taskNum) {
    MutexLock lock(m_mutex);
    return m_model.updateGraph(graph, devReq, memReq, taskNum);
}

bool GraphMapper::setPendGraph(KelmGraph* graph, bool pend) {
    MutexLock lock(m_mutex);
    return m_model.setPendGraph(graph, pend);
}

bool GraphMapper::mapGraph() {
    MutexLock lock(m_mutex);
    const MapperLimits limits{.maxGraphNumPerDevice = m_maxGraphNumPerDevice,
                              .maxPendingTaskNum = m_maxPendingTaskNum,
                              .maxPendingCycle = m_maxPendingCycle};
    // True is no new result: the last one stays, and the caller lays it over the workers again.
    if (!m_model.checkChanged(limits.maxPendingCycle)) {
        LOG_STEP("Not need map graph due to no changed");
        return true;
    }
    // The setters take effect from one mapping to the next, not within one.
    MappingCycle cycle(m_model, m_matcher, limits, m_trace);
    if (!cycle.run()) return false;  // the last result stays in force
    m_mapResult = m_model.getResidentGraphs();
    return true;
}

// A copy, for the caller to follow the graphs: in this class they are nothing but keys.
std::unordered_map<KelmGraph*, bool> GraphMapper::getGraphPendingState() {
    MutexLock lock(m_mutex);
    std::unordered_map<KelmGraph*, bool> states;
    for (const GraphItem* item : m_model.graphs()) {
        states[item->graph] = item->status == MAPPER_GRAPH_PENDING;
    }
    return states;
}

void GraphMapper::printAll() {
    if (!m_trace.isOn()) return;
    MutexLock lock(m_mutex);
    std::cout << kLine;
    m_model.dumpDevices(std::cout);
    m_model.dumpGraphs(std::cout);
    std::cout << kLine;
}

void GraphMapper::printMapper() {
    MutexLock lock(m_mutex);
    if (m_mapResult.empty()) std::cout << "Mapper is empty!\n";
    for (const auto& [worker, graphs] : m_mapResult) dumpMapEntry(std::cout, worker, graphs);
}

void GraphMapper::printGraphInMap(WorkThread* worker) {
    MutexLock lock(m_mutex);
    const auto found = m_mapResult.find(worker);
    if (found != m_mapResult.end()) dumpMapEntry(std::cout, worker, found->second);
}

void GraphMapper::printDevices() {
    MutexLock lock(m_mutex);
    m_model.dumpDevices(std::cout);
}

void GraphMapper::printGraphs() {
    MutexLock lock(m_mutex);
    m_model.dumpGraphs(std::cout);
}

void GraphMapper::printPendingGraph() {
    MutexLock lock(m_mutex);
    if (m_model.pendingGraphs().empty()) {
        std::cout << " Pending graph list is empty!\n";
        return;
    }
    std::cout << "PendingGraph: ";
    dumpById(std::cout, m_model.pendingGraphs());
}

void GraphMapper::printGraphsByStatus(MapperGraphStatus status) {
    MutexLock lock(m_mutex);
    for (const GraphItem* item : m_model.graphs()) {
        if (item->status == status) std::cout << item->dump() << "\n";
    }
}

}  // namespace kelm
