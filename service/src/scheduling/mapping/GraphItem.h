#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelm {

class KelmGraph;

// A device's state uses the same numbers: free, holds a ready graph, holds running graphs.
enum MapperGraphStatus : int16_t {
    MAPPER_GRAPH_NONE = 0,     // on a graph: the master while the others are mapped
    MAPPER_GRAPH_RDY = 1,      // to be given a device, but not counted as busy
    MAPPER_GRAPH_RUN = 2,      // takes part in the balance
    MAPPER_GRAPH_PENDING = 3,  // switched out for this cycle
};

// The mapper's record of a graph. The key is never followed.
struct GraphItem {
    std::string dump() const;

    uint32_t id = 0;
    std::string graphName;
    KelmGraph* graph = nullptr;
    float devReq = 0.0f;  // demand in devices, smoothed; 1.0 keeps one device busy
    uint32_t memReq = 0;  // MB
    bool isNewGraph = false;
    int32_t taskNum = 0;
    MapperGraphStatus status = MAPPER_GRAPH_RDY;
    uint32_t dedicatedDevNum = 0;  // devices that it has to itself in the latest map
    uint32_t sharedDevNum = 0;     // devices that it shares there, 0 or 1
    float devReqScaled = 0.0f;     // devReq over the compress ratio; used up during a mapping
    int32_t outCycleNum = 0;       // mapping cycles spent pending
    bool slaveGroup = true;        // may be switched out
    bool isMasterGraph = false;    // was the master of some mapping; never cleared
    MapperGraphStatus savedStatus = MAPPER_GRAPH_NONE;
    MapperGraphStatus pendSavedStatus = MAPPER_GRAPH_NONE;
};

// In order of creation: appended to, never sorted. Every walk and so every tie follows this
// order, which makes a run repeatable; neither pointers nor ids would.
using GraphItemSet = std::vector<GraphItem*>;

}  // namespace kelm
