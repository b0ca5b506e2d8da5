#include "tools/gateway/rest/InferReply.h"

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>

#include "tools/gateway/Failure.h"
#include "tools/gateway/rest/JsonTensor.h"

namespace kelm::gateway {

namespace {

std::string quoted(const std::string& text) {
    return nlohmann::json(text).dump(-1, ' ', true, nlohmann::json::error_handler_t::replace);
}

}  // namespace

InferReply::InferReply(const InferBody& body, const ModelDescription& model) : m_id(body.id) {
    std::vector<std::string> names;
    for (const auto& each : body.outputs) names.push_back(each.name);
    const auto tensors = model.chooseOutputs(names);
    for (size_t i = 0; i < tensors.size(); ++i) {
        const auto isRaw = i < body.outputs.size() ? body.outputs[i].isRaw : std::nullopt;
        add(*tensors[i], isRaw.value_or(body.isAllRaw));
    }
}

void InferReply::add(const TensorDescription& tensor, bool isRaw) {
    if (!isRaw && !infoOf(tensor.datatype).hasJson) {
        throw Failure(Cause::kInvalid, "output '" + tensor.name + "' has datatype " +
                                           std::string(infoOf(tensor.datatype).name) +
                                           ", which has no JSON form; ask for binary data");
    }
    m_wanted.push_back({&tensor, isRaw});
}

HttpReply InferReply::make(const Inference& inference) const {
    HttpReply reply;
    const ModelDescription& model = inference.description();
    std::string& text = reply.text;
    text =
        R"({"model_name":)" + quoted(model.name) + R"(,"model_version":)" + quoted(model.version);
    if (!m_id.empty()) text += R"(,"id":)" + quoted(m_id);
    text += R"(,"outputs":[)";
    for (const Wanted& each : m_wanted) {
        const auto bytes = inference.output(*each.tensor);
        if (&each != &m_wanted.front()) text += ',';
        text += R"({"name":)" + quoted(each.tensor->name) + R"(,"datatype":")" +
                std::string(infoOf(each.tensor->datatype).name) + R"(","shape":)" +
                toText(each.tensor->shape);
        if (each.isRaw) {
            text += R"(,"parameters":{"binary_data_size":)" + std::to_string(bytes.size()) + "}}";
            reply.pieces.push_back(bytes);
        } else {
            text += R"(,"data":)";
            appendJsonTensor(text, each.tensor->datatype, bytes);
            text += '}';
        }
    }
    text += "]}";
    if (!reply.pieces.empty()) {
        reply.type = "application/octet-stream";
        reply.headers.emplace_back("Inference-Header-Content-Length", std::to_string(text.size()));
    }
    return reply;
}

}  // namespace kelm::gateway
