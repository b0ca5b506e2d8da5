#pragma once

#include <cstdint>

#include "scheduling/mapping/DeviceSelector.h"
#include "utils/StepTrace.h"

namespace kelm {

class MapperModel;

// Gives the devices that the running graphs left to the ready ones, which have no demand: evenly,
// and directly in the map in force, without regard to what is resident.
// Never reached but in tests: no graph is ready when a mapping is made.
//
// Results as the planner's. One placing per placer.
//
// Threads: one. Owns: nothing; borrows the model. Locks: none, GraphMapper holds its mutex
// meanwhile.
class ReadyPlacer {
 public:
    ReadyPlacer(MapperModel& model, int32_t maxGraphNumPerDevice, StepTrace trace);

    // `deviceNum` is the number of devices that hold no running graph.
    int32_t mapRdyGraphBalance(uint32_t rdyGraphNum, uint32_t deviceNum);

 private:
    uint32_t freeReadyDevices();
    int32_t spreadRdyGraphs(uint32_t rdyGraphNum, uint32_t deviceNum);
    int32_t pairRdyGraphs();

    MapperModel& m_model;
    const int32_t m_maxGraphNumPerDevice;
    const StepTrace m_trace;
    DeviceSelector m_devices;
};

}  // namespace kelm
