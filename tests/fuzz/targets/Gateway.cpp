// The gateway's JSON: the description of a model behind a 'd', else the JSON part of a request to
// infer, whose tensors are read and written again.

#include <nlohmann/json.hpp>
#include <span>

#include "tools/gateway/Failure.h"
#include "tools/gateway/rest/InferBody.h"
#include "tools/gateway/rest/JsonTensor.h"

namespace {

using namespace kelm::gateway;

void readDescription(std::string_view text) {
    for (const auto& tensor : ModelDescription::parse("m", text).inputs) {
        if (tensor.bytes == 0) __builtin_trap();
    }
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
