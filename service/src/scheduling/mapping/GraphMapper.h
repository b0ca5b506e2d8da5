#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <unordered_map>

#include "scheduling/mapping/MapperMatcher.h"
#include "scheduling/mapping/MapperModel.h"
#include "scheduling/mapping/MappingCycle.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"
#include "utils/StepTrace.h"

namespace kelm {

class KelmGraph;
class WorkThread;

// Computes which graphs should be resident on which device from how much work each graph asks for.
// Graphs and workers are keys that are never followed. This is the front: it keeps the model of
// graphs and devices under a mutex and runs a mapping cycle on it when something has changed.
// docs/mapper.md explains the policy.
//
// Threads: one, the scheduling thread of its owner; the setters may be called from any.
// Locks: m_mutex for the whole of each operation.
class GraphMapper : public NonCopyable {
 public:
    using MapResult = std::map<WorkThread*, std::set<KelmGraph*>>;

    GraphMapper();

    // Ignored unless above 0.
    void setMaxGraphNumPerDevice(int number);
    // A pending graph with more waiting tasks than this is among the last to be switched out again.
    // 0 is ignored.
    void setMaxPendingTaskNum(int number);
    // Mapping cycles that a graph stays pending before a mapping is forced. 0 is ignored.
    void setMaxPendingCycle(int number);

    // As the operations of the model.
    bool addDevice(WorkThread* worker, unsigned int memSize, const std::string& name)
        EXCLUDES(m_mutex);
    bool removeDevice(WorkThread* worker) EXCLUDES(m_mutex);
    bool addGraph(KelmGraph* graph, unsigned int memReq, unsigned int taskNum,
                  const std::string& name) EXCLUDES(m_mutex);
    bool removeGraph(KelmGraph* graph) EXCLUDES(m_mutex);
    bool updateGraph(KelmGraph* graph, float devReq, unsigned int memReq, unsigned int taskNum)
        EXCLUDES(m_mutex);

    // Makes a new map if something changed. False: the last one stays in force.
    bool mapGraph() EXCLUDES(m_mutex);
    // Without lock, and valid until the next mapGraph(): for the thread that calls that.
    const MapResult& getGraphMapperResult() const { return m_mapResult; }
    // An entry per graph, true for those that are switched out.
    std::unordered_map<KelmGraph*, bool> getGraphPendingState() EXCLUDES(m_mutex);
    // To the standard output stream, only with the component's debug switch.
    void printAll() EXCLUDES(m_mutex);

    // Without a caller outside of tests; kept for an operator's hand and for a debugger's.
    // Switches a graph out, or puts it back to what it was, until the next mapping.
    bool setPendGraph(KelmGraph* graph, bool pend) EXCLUDES(m_mutex);
    // To the standard output stream.
    void printMapper() EXCLUDES(m_mutex);
    void printDevices() EXCLUDES(m_mutex);
    void printGraphs() EXCLUDES(m_mutex);
    void printPendingGraph() EXCLUDES(m_mutex);
    void printGraphsByStatus(MapperGraphStatus status) EXCLUDES(m_mutex);
    void printGraphInMap(WorkThread* worker) EXCLUDES(m_mutex);

 private:
    Mutex m_mutex;
    // Atomic: set without the lock, each by itself.
    std::atomic<int32_t> m_maxGraphNumPerDevice{1};
    std::atomic<int32_t> m_maxPendingCycle{0};
    std::atomic<int32_t> m_maxPendingTaskNum{0};
    // Not guarded: read without lock by the thread that writes it.
    MapResult m_mapResult;
    const StepTrace m_trace;
    MapperModel m_model GUARDED_BY(m_mutex);
    MapperMatcher m_matcher GUARDED_BY(m_mutex);
};

}  // namespace kelm
