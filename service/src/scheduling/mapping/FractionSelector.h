#pragma once

#include <cstddef>
#include <cstdint>

#include "scheduling/mapping/GraphItem.h"
#include "scheduling/mapping/MatchIndex.h"

namespace kelm {

// Chooses which fractions share a device, once the whole devices are given out. A graph leaves the
// choice when its `devReqScaled` is set to 0; while the selector lives nothing else of the graphs
// may change, but for the device numbers of those that have left.
class FractionSelector {
 public:
    // Only running graphs with a fraction left take part.
    FractionSelector(const GraphItemSet& graphs, uint32_t deviceMemSize);

    // The smallest graph without a device; without such, the rest that weighs most on the devices
    // that its graph already has. Null: no fraction is left.
    GraphItem* chooseFirstGraphForDevice();
    // The graph that fills up a device together with `graph`, preferably one without a device.
    GraphItem* chooseMatchGraph(const GraphItem& graph);

 private:
    GraphItem* heaviestRest();

    const uint32_t m_deviceMemSize;
    MatchIndex m_withoutDevice;
    MatchIndex m_rests;
    GraphItemSet m_restsByWeight;  // heaviest first
    size_t m_nextRest = 0;
};

}  // namespace kelm
