#pragma once

#include <cstdint>

#include "scheduling/mapping/DeviceSelector.h"
#include "scheduling/mapping/GraphItem.h"
#include "utils/StepTrace.h"

namespace kelm {

class MapperModel;

// Makes one plan: which running graphs share a device, and how many devices each has to itself.
// The demands are scaled so that together they fill the devices; then whole devices are given out,
// then fractions in pairs, and devices that are left relieve the busiest. docs/mapper.md has the
// policy and an example with numbers.
//
// In: demand, memory and status of the model's graphs. Out: the shadows of the devices, and of each
// graph its numbers of devices. Which real device takes which shadow is not decided here.
// A result is 0, the number of graphs too many, or negative for a hard failure. Pure arithmetic:
// the same model gives the same plan. One plan per planner; no locks.
class MapperPlanner {
 public:
    // Ends the cycle: the number of graphs is not what is wrong.
    static constexpr int32_t kHardFailure = -1;

    MapperPlanner(MapperModel& model, int32_t maxGraphNumPerDevice, StepTrace trace);

    // The graph that dwarfs the others, by the numbers of the last plan; null in most cases.
    GraphItem* figureOutMapperMode() const;
    // All running graphs share the devices.
    int32_t mapRunGraphBalance(uint32_t deviceNum);
    // The master gets devices of its own first; the other graphs, the ready ones too, share the
    // rest, which is one device at least.
    int32_t mapRunGraphMaster(GraphItem& master, uint32_t deviceNum);

 private:
    uint32_t getMasterDeviceNum(const GraphItem& master, uint32_t deviceNum) const;
    int32_t mapSlaveGraphs(uint32_t slaveNum);

    // The core and its parts, in order.
    int32_t mapGraphCore(uint32_t deviceNum);
    float getCompressRatio(uint32_t runNum) const;
    int32_t mapIntegerPart();
    int32_t giveWholeDevices(GraphItem& item);
    void mapFractionPart();
    int32_t forceAssign();
    void lowDownDevices();

    GraphItemSet findGraphFractionOnly() const;
    void beginPart() { m_partDevices = m_partGraphs = 0; }
    void takeDevice();
    void logPart(const char* format) const;

    MapperModel& m_model;
    const int32_t m_maxGraphNumPerDevice;
    const StepTrace m_trace;
    DeviceSelector m_devices;  // of the shadows
    uint32_t m_deviceNum = 0;  // that may be taken
    uint32_t m_devUsed = 0;    // taken so far, the master's not counted
    float m_ratio = 1.0f;      // demand over devices
    // Handled by the part at work, for its log line.
    uint32_t m_partDevices = 0;
    uint32_t m_partGraphs = 0;
};

}  // namespace kelm
