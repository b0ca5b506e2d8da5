#include "scheduling/mapping/DeviceItem.h"

#include "utils/StringHelper.h"

namespace kelm {

std::string DeviceItem::dump() const {
    std::string text = StringHelper::format(
        "DeviceItem(%u) - workerName=%s worker=%p graphNum=%d util=%.2f mem=%u devStatus=%d "
        "isFull=%d isMatched=%d memSize=%u",
        id / 2, workerName, worker, static_cast<int>(graphs.size()), util, mem, devStatus,
        static_cast<int>(isFull), static_cast<int>(isMatched), memSize);
    if (!graphs.empty()) text += " graphID=";
    for (const GraphItem* graph : graphs) text += StringHelper::format("[%u] ", graph->id);
    return text;
}

void DeviceItem::reset() {
    graphs.clear();
    util = 0.0f;
    mem = 0;
    devStatus = MAPPER_GRAPH_NONE;
    isFull = false;
    isMatched = false;
}

}  // namespace kelm
