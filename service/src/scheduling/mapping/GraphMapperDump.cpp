#include <algorithm>
#include <iostream>

#include "scheduling/mapping/GraphMapper.h"
#include "scheduling/mapping/GraphMapperComparer.h"

namespace kelm {

namespace {

constexpr const char* kLine = "------------------------------------------\n";  // 42

// A copy in order of ids; equal ids keep their order.
template <class Item>
void dumpById(std::ostream& out, std::vector<Item*> items) {
    std::stable_sort(items.begin(), items.end(), GraphMapperComparer());
    for (const Item* item : items) out << item->dump() << "\n";
}

void dumpMapEntry(std::ostream& out, const void* worker, const std::set<KelmGraph*>& graphs) {
    out << "worker(" << worker << ") - [";
    for (const KelmGraph* graph : graphs) out << static_cast<const void*>(graph) << " ";
    out << "]\n";
}

}  // namespace

void GraphMapper::dumpDevices(std::ostream& out) {
    out << "m_deviceSet:\n";
    dumpById(out, m_deviceSet);
}

void GraphMapper::dumpGraphs(std::ostream& out) {
    out << "m_graphSet:\n";
    dumpById(out, m_graphSet);
}

void GraphMapper::dumpTooManyOut(const GraphItemSet& candidates) {
    std::cout << "** -------------------------------\n"
              << "\n** Dump deviceSet:\n";
    dumpDevices(std::cout);
    std::cout << "** Dump graphSet:\n";
    dumpGraphs(std::cout);
    std::cout << "** Dump slaveGraphSet:\n";
    dumpById(std::cout, candidates);
    std::cout << "** ------------ END ------------\n";
}

void GraphMapper::printAll() {
    if (!m_debugProcess) return;
    MutexLock lock(m_mutex);
    std::cout << kLine;
    dumpDevices(std::cout);
    dumpGraphs(std::cout);
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
    dumpDevices(std::cout);
}

void GraphMapper::printGraphs() {
    MutexLock lock(m_mutex);
    dumpGraphs(std::cout);
}

void GraphMapper::printPendingGraph() {
    MutexLock lock(m_mutex);
    if (m_pendingGraphSet.empty()) {
        std::cout << " Pending graph list is empty!\n";
        return;
    }
    std::cout << "PendingGraph: ";
    dumpById(std::cout, m_pendingGraphSet);
}

void GraphMapper::printGraphsByStatus(MapperGraphStatus status) {
    MutexLock lock(m_mutex);
    for (const GraphItem* item : m_graphSet) {
        if (item->status == status) std::cout << item->dump() << "\n";
    }
}

}  // namespace kelm
