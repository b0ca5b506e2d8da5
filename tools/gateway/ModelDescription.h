#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/gateway/Datatype.h"

namespace kelm::gateway {

using Shape = std::vector<int64_t>;

// The elements of a shape; nothing if they are negative or more than 2^48.
std::optional<uint64_t> countElements(const Shape& shape);
std::string toText(const Shape& shape);

// A tensor and its place in the graph's buffer.
struct TensorDescription {
    std::string name;
    Datatype datatype = Datatype::kUint8;
    Shape shape;          // -1: a variable dimension, of inputs only
    uint64_t offset = 0;  // bytes
    uint64_t bytes = 0;   // its room

    bool isVariable() const;
};

// What a file `name.json` says of a model.
struct ModelDescription {
    // Throws a Failure with the reason. Whether the tensors fit is checked once the graph's sizes
    // are known.
    static ModelDescription parse(const std::string& name, std::string_view text);

    // Throws a Failure if a tensor reaches beyond the buffers of the graph.
    void requireFit(uint64_t inputBytes, uint64_t outputBytes) const;

    // The outputs of these names; without any, all. Throws a Failure if one is not there or twice.
    std::vector<const TensorDescription*> chooseOutputs(
        const std::vector<std::string>& names) const;

    std::string name;
    std::string graph;  // the file, as it is written there
    std::string version = "1";
    std::string platform = "kelm";
    std::string tag;
    std::string streamId;
    int32_t subclass = 0;
    int32_t expectedDevices = 1;
    uint32_t window = 0;  // 0: three tasks for each device
    uint32_t queue = 64;  // requests beyond the window
    uint32_t priority = 0;
    uint32_t warmup = 0;  // inferences before the first request
    std::chrono::milliseconds deadline{10000};
    std::vector<TensorDescription> inputs;
    std::vector<TensorDescription> outputs;
};

}  // namespace kelm::gateway
