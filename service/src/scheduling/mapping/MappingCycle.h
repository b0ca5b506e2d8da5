#pragma once

#include <cstdint>

#include "scheduling/mapping/GraphItem.h"
#include "utils/StepTrace.h"

namespace kelm {

class MapperMatcher;
class MapperModel;

// What the configuration allows; see the setters of GraphMapper.
struct MapperLimits {
    int32_t maxGraphNumPerDevice = 1;
    int32_t maxPendingTaskNum = 0;
    int32_t maxPendingCycle = 0;
};

// One mapping: makes a plan, switches graphs out until it fits, and has it laid over the map in
// force. Results as the planner's: 0, the number of graphs too many, or negative for a hard
// failure. One run per cycle.
//
// Threads: one, with the mutex of GraphMapper held. Owns: nothing; borrows model and
// matcher for its life. Locks: none.
class MappingCycle {
 public:
    MappingCycle(MapperModel& model, MapperMatcher& matcher, const MapperLimits& limits,
                 StepTrace trace);

    // False: no map was found and the one in force is to stay. The model then says changed for as
    // long as it did before, so that the next cycle tries again.
    bool run();

 private:
    bool fitGraphs();
    void abandonMapping();
    void returnPendingGraphs();

    int32_t doMapGraph();
    int32_t doMapBothKinds(uint32_t rdyNum, uint32_t runNum);
    int32_t mapRunGraphBalance(uint32_t deviceNum);
    int32_t mapRdyGraphBalance(uint32_t rdyNum, uint32_t deviceNum);
    void refreshDeviceStatus();

    // Leaves out that many graphs in all, not so many more. False: there are not so many.
    bool filterGraphs(int outGraphNum);
    // The candidates, the first to be switched out first.
    GraphItemSet sortForSwitchOut(const GraphItemSet& candidates) const;
    void dumpTooManyOut(const GraphItemSet& candidates) const;

    MapperModel& m_model;
    MapperMatcher& m_matcher;
    const MapperLimits m_limits;
    const StepTrace m_trace;
};

}  // namespace kelm
