#pragma once

#include "records/KelmGraph.h"
#include "records/KelmTask.h"

namespace kelm {

// A graph with its content; equal contents have equal hashes.
inline std::unique_ptr<KelmGraph> makeTestGraph(uint64_t id, const std::string& content) {
    const std::string name = "graph" + std::to_string(id);
    return std::make_unique<KelmGraph>(id, /*clientId=*/1, content.data(), content.size(),
                                       name.c_str(), /*expectDeviceNumber=*/1);
}

// A task without client and buffers.
inline std::unique_ptr<KelmTask> makeTestTask(uint64_t id, KelmGraph* graph) {
    const KelmMsgReqInferTask request{};
    return std::make_unique<KelmTask>(id, nullptr, graph, nullptr, &request);
}

}  // namespace kelm
