#include "managers/BufferSizes.h"

#include <cstddef>
#include <cstdint>

#include "execution/KelmDeviceBase.h"
#include "records/KelmGraph.h"

namespace kelm {

namespace {

struct SizeRow {
    KelmGraphInfo what;
    void (KelmGraph::*store)(uint64_t size);
};

constexpr SizeRow kSizeRows[] = {
    {GRAPH_INFO_INPUT, &KelmGraph::setInputBufferSize},
    {GRAPH_INFO_OUTPUT, &KelmGraph::setOutputBufferSize},
    {GRAPH_INFO_TIME_TAKEN, &KelmGraph::setTimeTakensSize},
    {GRAPH_INFO_DEBUG, &KelmGraph::setDebugBufferSize},
    {GRAPH_INFO_THERMAL, &KelmGraph::setThermalBufferSize},
};

}  // namespace

bool fillBufferSizes(KelmGraph& graph) {
    for (const SizeRow& row : kSizeRows) {
        size_t size = 0;
        if (KelmDeviceBase::getGraphInfo(graph.getData(), graph.getDataSize(), row.what, size) !=
            0) {
            return false;
        }
        (graph.*row.store)(size);
    }
    return true;
}

}  // namespace kelm
