// The gateway's JSON: the description of a model behind a 'd', else the JSON part of a request to
// infer, whose tensors are read and written again.

#include <nlohmann/json.hpp>
#include <span>

#include "tools/gateway/Failure.h"
#include "tools/gateway/rest/InferBody.h"
#include "tools/gateway/rest/JsonTensor.h"

namespace {

using namespace kelm::gateway;

constexpr uint64_t kBufferBytes = 1 << 20;  // of the graph, in either direction

void readDescription(std::string_view text) {
    const ModelDescription model = ModelDescription::parse("m", text);
    model.requireFit(kBufferBytes, kBufferBytes);
    for (const auto* tensors : {&model.inputs, &model.outputs}) {
        for (const auto& tensor : *tensors) {
            if (tensor.bytes == 0 || tensor.offset + tensor.bytes > kBufferBytes) __builtin_trap();
        }
    }
    std::vector<std::string> names;
    for (const auto& tensor : model.outputs) names.push_back(tensor.name);
    if (model.chooseOutputs(names) != model.chooseOutputs({})) __builtin_trap();
    names.push_back(names.front());
    (void)model.chooseOutputs(names);  // is refused
    __builtin_trap();
}

void readBody(std::string_view text) {
    for (const auto& input : InferBody::parse(text).inputs) {
        const auto type = findDatatype(input.datatype);
        if (!type || input.data.is_null()) continue;
        const std::string bytes = readJsonTensor(input.data, input.name, *type, input.shape);
        std::string again;
        appendJsonTensor(again, *type, std::as_bytes(std::span(bytes)));
        if (nlohmann::json::parse(again).size() != countElements(input.shape)) __builtin_trap();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    try {
        text.starts_with('d') ? readDescription(text.substr(1)) : readBody(text);
    } catch (const Failure&) {
        return 0;  // told to the client
    }
    return 0;
}
