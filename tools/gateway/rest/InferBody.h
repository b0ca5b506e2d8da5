#pragma once

#include <chrono>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/gateway/ModelDescription.h"

namespace kelm::gateway {

// The JSON part of a request to infer.
struct InferBody {
    struct Input {
        std::string name;
        std::string datatype;
        Shape shape;
        nlohmann::json data;               // null: raw
        std::optional<uint64_t> rawBytes;  // behind the JSON
    };
    struct Output {
        std::string name;
        std::optional<bool> isRaw;  // nothing: as the request says of all
    };

    // Throws a Failure. Whether it fits a model is not checked.
    static InferBody parse(std::string_view text);

    std::string id;
    std::optional<std::chrono::microseconds> timeout;
    std::optional<uint32_t> priority;
    bool isAllRaw = false;
    std::vector<Input> inputs;
    std::vector<Output> outputs;  // none: all
};

}  // namespace kelm::gateway
