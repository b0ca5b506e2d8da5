#include "scheduling/mapping/FractionSelector.h"

#include <algorithm>

namespace kelm {

namespace {

// Written as "not above 0" so that NaN, the scaled demand of 0 over 0, is left out too.
GraphItemSet selectFractions(const GraphItemSet& graphs, bool withDevice) {
    GraphItemSet selected;
    selected.reserve(graphs.size());
    for (GraphItem* item : graphs) {
        if (item->status != MAPPER_GRAPH_RUN || !(item->devReqScaled > 0.0f)) continue;
        if ((item->dedicatedDevNum != 0) == withDevice) selected.push_back(item);
    }
    return selected;
}

// A rest on many devices weighs little on each of them.
float weightOf(const GraphItem* item) {
    return item->devReqScaled / static_cast<float>(item->dedicatedDevNum);
}

GraphItemSet sortByWeight(GraphItemSet rests) {
    std::stable_sort(rests.begin(), rests.end(), [](const GraphItem* left, const GraphItem* right) {
        return weightOf(left) > weightOf(right);
    });
    return rests;
}

}  // namespace

// Each index has its own order; that a graph is used up is marked in the item, which all share.
FractionSelector::FractionSelector(const GraphItemSet& graphs, uint32_t deviceMemSize)
    : m_deviceMemSize(deviceMemSize),
      m_withoutDevice(selectFractions(graphs, false)),
      m_rests(selectFractions(graphs, true)),
      m_restsByWeight(sortByWeight(selectFractions(graphs, true))) {}

// A graph without a device comes first, since it could not run at all. The smallest of them leaves
// most room for a partner.
GraphItem* FractionSelector::chooseFirstGraphForDevice() {
    GraphItem* smallest = m_withoutDevice.smallest();
    return smallest != nullptr && smallest->devReqScaled < 1.0f ? smallest : heaviestRest();
}

GraphItem* FractionSelector::heaviestRest() {
    // The order holds while rests are used up, since nothing else of them changes.
    while (m_nextRest < m_restsByWeight.size()) {
        GraphItem* item = m_restsByWeight[m_nextRest];
        if (item->devReqScaled > 0.0f) return item;
        ++m_nextRest;
    }
    return nullptr;
}

// The same preference: a rest can do without, its graph runs on its own devices.
GraphItem* FractionSelector::chooseMatchGraph(const GraphItem& graph) {
    GraphItem* match = m_withoutDevice.nearest(graph, m_deviceMemSize);
    return match != nullptr ? match : m_rests.nearest(graph, m_deviceMemSize);
}

}  // namespace kelm
