#include "scheduling/mapping/FractionSelector.h"

#include <algorithm>

namespace kelm {

namespace {

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

FractionSelector::FractionSelector(const GraphItemSet& graphs, uint32_t deviceMemSize)
    : m_deviceMemSize(deviceMemSize),
      m_withoutDevice(selectFractions(graphs, false)),
      m_rests(selectFractions(graphs, true)),
      m_restsByWeight(sortByWeight(selectFractions(graphs, true))) {}

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

GraphItem* FractionSelector::chooseMatchGraph(const GraphItem& graph) {
    GraphItem* match = m_withoutDevice.nearest(graph, m_deviceMemSize);
    return match != nullptr ? match : m_rests.nearest(graph, m_deviceMemSize);
}

}  // namespace kelm
