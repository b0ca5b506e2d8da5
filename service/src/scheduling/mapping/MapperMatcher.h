#pragma once

#include <cstdint>

#include "scheduling/mapping/DeviceItem.h"
#include "utils/StepTrace.h"

namespace kelm {

class MapperModel;

// Lays a plan over the map in force: decides which real device takes which shadow, so that each
// keeps as many of its graphs as possible, since a graph that moves costs a load.
//
// Threads: one at a time, the caller locks.
class MapperMatcher {
 public:
    explicit MapperMatcher(StepTrace trace) : m_trace(std::move(trace)) {}

    // From the shadows to the devices of the model; a device without a shadow is free afterwards.
    void mapGraphPost(MapperModel& model);

    // How much alike they are: 0 for nothing in common, 4 for the same graphs. A shadow that has
    // the device's first graph in second place is turned.
    static int deviceMapperCompare(const DeviceItem* real, DeviceItem* shadow);
    static void deviceMapperCopy(DeviceItem* real, DeviceItem* shadow);

 private:
    uint32_t matchAlikeDevices(const MapperModel& model);
    static uint32_t fillLeftDevices(const MapperModel& model);

    const StepTrace m_trace;
    uint32_t m_totalDeviceCount = 0;   // over all mappings, for the log
    uint32_t m_stableDeviceCount = 0;  // of these, kept exactly their graphs
};

}  // namespace kelm
