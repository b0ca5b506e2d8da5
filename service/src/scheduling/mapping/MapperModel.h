#pragma once

#include <atomic>
#include <cstdint>
#include <iosfwd>
#include <map>
#include <memory>
#include <set>
#include <string>

#include "scheduling/mapping/DeviceItem.h"
#include "scheduling/mapping/GraphItem.h"
#include "utils/NonCopyable.h"
#include "utils/StepTrace.h"

namespace kelm {

class KelmGraph;
class WorkThread;

// The picture from which a mapping is made: the graphs with their demand, the devices with the
// graphs that are resident on them, a shadow for each device on which the next plan is built, and
// whether anything has changed since the last mapping.
//
// Threads: one at a time, the caller locks. Owns: all items, from add to remove.
class MapperModel : public NonCopyable {
 public:
    explicit MapperModel(StepTrace trace) : m_trace(std::move(trace)) {}

    // False only for a null worker; a known one stays as it is. Memory in MB.
    bool addDevice(WorkThread* worker, unsigned int memSize, const std::string& name);
    bool removeDevice(WorkThread* worker);
    // False: null, or too large for a device. A known graph stays as it is. A new one is taken to
    // need its even share of a device, until its demand is measured.
    bool addGraph(KelmGraph* graph, unsigned int memReq, unsigned int taskNum,
                  const std::string& name, int32_t maxGraphNumPerDevice);
    // Also takes the graph off the devices and off the last plan.
    bool removeGraph(KelmGraph* graph);
    // Takes a fresh measure of the demand, in devices, and puts the graph back to running.
    bool updateGraph(KelmGraph* graph, float devReq, unsigned int memReq, unsigned int taskNum);
    bool setPendGraph(KelmGraph* graph, bool pend);

    // Counts a further cycle for each pending graph. True if a new mapping is due.
    bool checkChanged(int32_t maxPendingCycle);
    void clearGraphChanged() { m_graphChanged = false; }
    void clearChanged() { m_graphChanged = m_deviceChanged = false; }
    // Notes which graphs a mapping has left pending; the others have waited for the last time.
    void settlePendingGraphs();
    // Makes the shadows, and what the last mapping noted on the devices, ready for a new plan.
    void resetPlan();

    // Null for an unknown key.
    DeviceItem* findDevice(WorkThread* worker) const;
    GraphItem* findGraph(KelmGraph* graph) const;
    const GraphItemSet& graphs() const { return m_graphSet; }
    const GraphItemSet& pendingGraphs() const { return m_pendingGraphSet; }
    const DeviceItemSet& devices() const { return m_deviceSet; }
    const DeviceItemSet& shadows() const { return m_newDeviceSet; }
    // MB. All devices are taken to be alike.
    uint32_t getDeviceMemSize() const;
    uint32_t getGraphNumByStatus(MapperGraphStatus status) const;
    // Summed in walk order: the rounding of the sum is part of each decision.
    float getRunGraphSumDevReq() const;
    // An entry for each device, also for an empty one.
    std::map<WorkThread*, std::set<KelmGraph*>> getResidentGraphs() const;

    void dumpDevices(std::ostream& out) const;
    void dumpGraphs(std::ostream& out) const;

 private:
    bool checkPendingGraphCycle(int32_t maxPendingCycle);
    float boundMeasure(float devReq) const;

    GraphItemSet m_graphSet;
    GraphItemSet m_pendingGraphSet;  // came out of the last mapping as pending
    // The graphs of m_graphSet by key; owns their items.
    std::map<KelmGraph*, std::unique_ptr<GraphItem>> m_graphPtrSet;
    bool m_graphChanged = false;
    bool m_deviceChanged = false;
    DeviceItemSet m_deviceSet;     // with the map in force
    DeviceItemSet m_newDeviceSet;  // their shadows, in step
    // The devices of m_deviceSet by key; owns their items.
    std::map<WorkThread*, std::unique_ptr<DeviceItem>> m_devicePtrSet;
    const StepTrace m_trace;

    // Atomic: all mappers take ids from them, and each mapper has a mutex of its own.
    static inline std::atomic<uint32_t> m_graphCount{0};
    static inline std::atomic<uint32_t> m_deviceCount{0};
};

}  // namespace kelm
