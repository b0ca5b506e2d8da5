#pragma once

#include <atomic>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>

#include "scheduling/mapping/DeviceItem.h"
#include "scheduling/mapping/GraphItem.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm {

class KelmGraph;
class WorkThread;

// Computes which graphs should be resident on which device from how much work each graph asks for.
// Graphs and workers are keys that are never followed. A new map is built on the shadows of the
// devices and then laid over the map in force so that few graphs have to move.
//
// Threads: one, the scheduling thread of its owner; the setters may be called from any.
// Owns: the items of graphs and devices, from add to remove.
// Locks: m_mutex for the whole of each operation.
class GraphMapper : public NonCopyable {
 public:
    using MapResult = std::map<WorkThread*, std::set<KelmGraph*>>;

    GraphMapper();

    // Ignored unless above 0.
    void setMaxGraphNumPerDevice(int number);
    // A graph that is out with more waiting tasks than this comes back in. 0 is ignored.
    void setMaxPendingTaskNum(int number);
    // Mapping cycles that a graph stays out before a mapping is forced. 0 is ignored.
    void setMaxPendingCycle(int number);

    // False only for a null worker; a known one stays as it is. Memory in MB.
    bool addDevice(WorkThread* worker, unsigned int memSize, const std::string& name)
        EXCLUDES(m_mutex);
    bool removeDevice(WorkThread* worker) EXCLUDES(m_mutex);
    // False: null, or too large for a device. A known graph stays as it is.
    bool addGraph(KelmGraph* graph, unsigned int memReq, unsigned int taskNum,
                  const std::string& name) EXCLUDES(m_mutex);
    bool removeGraph(KelmGraph* graph) EXCLUDES(m_mutex);
    // Takes a fresh measure of the demand, in devices, and puts the graph back to running.
    bool updateGraph(KelmGraph* graph, float devReq, unsigned int memReq, unsigned int taskNum)
        EXCLUDES(m_mutex);
    // Switches a graph out by hand, or puts it back to what it was.
    bool setPendGraph(KelmGraph* graph, bool pend) EXCLUDES(m_mutex);

    // Makes a new map if something changed. False: the last one stays in force.
    bool mapGraph() EXCLUDES(m_mutex);
    // Without lock, and valid until the next mapGraph(): for the thread that calls that.
    const MapResult& getGraphMapperResult() const { return m_mapResult; }
    // An entry per graph, true for those that are switched out.
    std::unordered_map<KelmGraph*, bool> getGraphPendingState() EXCLUDES(m_mutex);

    // To the standard output stream. printAll() only with the component's debug switch.
    void printAll() EXCLUDES(m_mutex);
    void printMapper() EXCLUDES(m_mutex);
    void printDevices() EXCLUDES(m_mutex);
    void printGraphs() EXCLUDES(m_mutex);
    void printPendingGraph() EXCLUDES(m_mutex);
    void printGraphsByStatus(MapperGraphStatus status) EXCLUDES(m_mutex);
    void printGraphInMap(WorkThread* worker) EXCLUDES(m_mutex);

 private:
    friend class GraphMapperProbe;  // lets tests set up and look at the items
    struct CorePlan;
    class ShadowIndex;

    // The model.
    DeviceItem* findDevice(WorkThread* worker) REQUIRES(m_mutex);
    GraphItem* findGraph(KelmGraph* graph) REQUIRES(m_mutex);
    uint32_t getDeviceMemSize() REQUIRES(m_mutex);
    uint32_t getGraphNumByStatus(MapperGraphStatus status) REQUIRES(m_mutex);
    float boundMeasure(float devReq) REQUIRES(m_mutex);

    // What calls for a new mapping, and who is switched out.
    bool checkChanged() REQUIRES(m_mutex);
    bool checkPendingGraphCycle() REQUIRES(m_mutex);
    void groupGraphs() REQUIRES(m_mutex);
    bool filterGraphs(int outGraphNum) REQUIRES(m_mutex);
    // The candidates, first to go first.
    GraphItemSet sortForSwitchOut(const GraphItemSet& candidates) REQUIRES(m_mutex);

    // The mapping. A result is 0, the number of graphs too many, or negative for a hard failure.
    bool fitGraphs() REQUIRES(m_mutex);
    void commitMapping() REQUIRES(m_mutex);
    bool abandonMapping() REQUIRES(m_mutex);
    int32_t doMapGraph() REQUIRES(m_mutex);
    int32_t doMapBothKinds(uint32_t rdyNum, uint32_t runNum) REQUIRES(m_mutex);
    void refreshDeviceStatus() REQUIRES(m_mutex);
    void resetPlan() REQUIRES(m_mutex);
    bool figureOutMapperMode() REQUIRES(m_mutex);
    int32_t mapRunGraphBalance(uint32_t deviceNum) REQUIRES(m_mutex);
    int32_t mapRdyGraphBalance(uint32_t rdyGraphNum, uint32_t deviceNum) REQUIRES(m_mutex);
    int32_t spreadRdyGraphs(uint32_t rdyGraphNum, uint32_t deviceNum) REQUIRES(m_mutex);
    int32_t pairRdyGraphs() REQUIRES(m_mutex);
    int32_t mapRunGraphMaster(uint32_t deviceNum) REQUIRES(m_mutex);
    uint32_t getMasterDeviceNum(uint32_t deviceNum) REQUIRES(m_mutex);
    int32_t mapSlaveGraphs(uint32_t slaveNum) REQUIRES(m_mutex);

    // The core: builds the new map on the shadows.
    int32_t mapGraphCore(uint32_t deviceNum) REQUIRES(m_mutex);
    float getCompressRatio(uint32_t deviceNum, uint32_t runNum) REQUIRES(m_mutex);
    int32_t mapIntegerPart(CorePlan& plan) REQUIRES(m_mutex);
    int32_t giveWholeDevices(CorePlan& plan, GraphItem& item) REQUIRES(m_mutex);
    void mapFractionPart(CorePlan& plan) REQUIRES(m_mutex);
    int32_t forceAssign(CorePlan& plan) REQUIRES(m_mutex);
    void lowDownDevices(CorePlan& plan) REQUIRES(m_mutex);
    float getRunGraphSumDevReq() REQUIRES(m_mutex);
    GraphItemSet findGraphFractionOnly() REQUIRES(m_mutex);
    void logPart(const char* format, const CorePlan& plan) REQUIRES(m_mutex);

    // The end: lays the plan over the map in force.
    bool mapGraphPost() REQUIRES(m_mutex);
    uint32_t matchAlikeDevices() REQUIRES(m_mutex);
    uint32_t fillLeftDevices() REQUIRES(m_mutex);
    static void updateDeviceState(const DeviceItemSet& devices);
    static int deviceMapperCompare(const DeviceItem* real, DeviceItem* shadow);
    static void deviceMapperCopy(DeviceItem* real, DeviceItem* shadow);

    // The first device that is free, or null. No device becomes free while a cursor is in use, so
    // each search goes on where the last one ended.
    static DeviceItem* getFreeDevice(const DeviceItemSet& devices, size_t& cursor);
    static uint32_t getFreeDeviceNum(const DeviceItemSet& devices);
    static DeviceItem* getRdyDevice(const DeviceItemSet& devices, uint32_t memReq);

    void dumpDevices(std::ostream& out) REQUIRES(m_mutex);
    void dumpGraphs(std::ostream& out) REQUIRES(m_mutex);
    void dumpTooManyOut(const GraphItemSet& candidates) REQUIRES(m_mutex);

    Mutex m_mutex;
    // Atomic: set without the lock, each by itself.
    std::atomic<int32_t> m_maxGraphNumPerDevice{1};
    GraphItemSet m_graphSet GUARDED_BY(m_mutex);
    GraphItemSet m_pendingGraphSet GUARDED_BY(m_mutex);  // came out of the last mapping as pending
    // The graphs of m_graphSet by key; owns their items.
    std::map<KelmGraph*, std::unique_ptr<GraphItem>> m_graphPtrSet GUARDED_BY(m_mutex);
    // Not guarded: read without lock by the thread that writes it.
    MapResult m_mapResult;
    std::atomic<int32_t> m_maxPendingCycle{0};
    std::atomic<int32_t> m_maxPendingTaskNum{0};
    int16_t m_mapperMode GUARDED_BY(m_mutex) = 0;            // 0 balance, 1 master
    GraphItem* m_masterGraph GUARDED_BY(m_mutex) = nullptr;  // one of m_graphSet
    bool m_graphChanged GUARDED_BY(m_mutex) = false;
    bool m_deviceChanged GUARDED_BY(m_mutex) = false;
    DeviceItemSet m_deviceSet GUARDED_BY(m_mutex);     // with the map in force
    DeviceItemSet m_newDeviceSet GUARDED_BY(m_mutex);  // their shadows, in step
    // The devices of m_deviceSet by key; owns their items.
    std::map<WorkThread*, std::unique_ptr<DeviceItem>> m_devicePtrSet GUARDED_BY(m_mutex);
    const bool m_debugProcess;
    const std::string m_name{"GraphMapper"};
    uint32_t m_totalDeviceCount GUARDED_BY(m_mutex) = 0;   // over all mappings
    uint32_t m_stableDeviceCount GUARDED_BY(m_mutex) = 0;  // of these, kept exactly their graphs

    // Atomic: all mappers take ids from them, and each mapper has a mutex of its own.
    static inline std::atomic<uint32_t> m_graphCount{0};
    static inline std::atomic<uint32_t> m_deviceCount{0};
};

}  // namespace kelm
