#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "scheduling/mapping/GraphItem.h"
#include "scheduling/mapping/GraphSlots.h"

namespace kelm {

class WorkThread;

// The mapper's record of a device: either the real one, with the map in force, or its shadow, on
// which a new map is built. The key is never followed.
struct DeviceItem {
    std::string dump() const;
    // Takes all graphs off and forgets what a mapping worked out.
    void reset();

    uint32_t id = 0;  // a device takes two, one for its shadow
    std::string workerName;
    WorkThread* worker = nullptr;
    GraphSlots graphs;
    float util = 0.0f;  // estimated load
    uint32_t mem = 0;   // MB taken by its graphs
    MapperGraphStatus devStatus = MAPPER_GRAPH_NONE;
    bool isFull = false;                 // no further graph may be forced onto it
    bool isMatched = false;              // already paired between the new map and the old one
    std::unique_ptr<DeviceItem> shadow;  // null on a shadow
    uint32_t memSize = 0;                // MB
};

// In order of creation, as the sets of graphs. The real items and the shadows stand in step.
using DeviceItemSet = std::vector<DeviceItem*>;

// Works out memory and load of each device from the graphs on it.
void updateDeviceState(const DeviceItemSet& devices);

}  // namespace kelm
