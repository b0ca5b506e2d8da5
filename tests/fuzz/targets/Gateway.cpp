// What the gateway reads: the description of a model behind a 'd', a message by gRPC behind a 'p',
// else the JSON part of a request to infer, whose tensors are read and written again.

#include <grpcpp/support/slice.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <span>

#include "tools/gateway/Failure.h"
#include "tools/gateway/RequestRules.h"
#include "tools/gateway/grpc/Contents.h"
#include "tools/gateway/grpc/InferMessage.h"
#include "tools/gateway/rest/InferBody.h"
#include "tools/gateway/rest/JsonTensor.h"

namespace {

using namespace kelm::gateway;

constexpr uint64_t kBufferBytes = 1 << 20;  // of the graph, in either direction
constexpr size_t kMostText = 1024;          // of a message, in bytes

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

void checkContents(const inference::ModelInferRequest::InferInputTensor& input) {
    const auto type = findDatatype(input.datatype());
    if (!type || !infoOf(*type).hasJson) return;
    const std::string elements = readContents(input.contents(), input.name(), *type);
    inference::InferTensorContents again;
    appendContents(again, *type, std::as_bytes(std::span(elements)));
    if (countContents(again) != countContents(input.contents())) __builtin_trap();
}

// What is taken the generated parser takes, too, and finds the same in.
inference::ModelInferRequest readAlike(std::string_view text, size_t sliceLength) {
    std::vector<grpc::Slice> slices;
    for (size_t at = 0; at < text.size(); at += sliceLength) {
        const std::string_view piece = text.substr(at, sliceLength);
        slices.emplace_back(piece.data(), piece.size());
    }
    grpc::ByteBuffer buffer(slices.data(), slices.size());
    InferMessage read = InferMessage::read(buffer, kMostText);
    for (const RawContent& each : read.raw) {
        std::string& raw = *read.request.add_raw_input_contents();
        raw.resize(each.bytes);
        each.copyTo(std::as_writable_bytes(std::span(raw)));
    }
    inference::ModelInferRequest whole;
    if (!whole.ParseFromString(std::string(text))) __builtin_trap();
    if (whole.ByteSizeLong() != read.request.ByteSizeLong()) __builtin_trap();
    const auto& raws = read.request.raw_input_contents();
    if (!std::ranges::equal(whole.raw_input_contents(), raws)) __builtin_trap();
    return read.request;
}

void requireTaken(const inference::ModelInferRequest& request, size_t sliceLength) {
    const int most = std::max(
        {request.inputs_size(), request.outputs_size(), request.raw_input_contents_size()});
    if (request.ByteSizeLong() > kMostText || most > static_cast<int>(kMostTensors)) return;
    try {
        (void)readAlike(request.SerializeAsString(), sliceLength);
    } catch (const Failure&) {
        __builtin_trap();
    }
}

// Its first byte is the length of the slices that it comes in.
void readMessage(std::string_view text) {
    if (text.empty()) return;
    const size_t sliceLength = 1 + static_cast<unsigned char>(text[0]);
    text.remove_prefix(1);
    inference::ModelInferRequest whole;
    if (whole.ParseFromString(std::string(text))) {
        whole.DiscardUnknownFields();
        requireTaken(whole, sliceLength);
    }
    const inference::ModelInferRequest request = readAlike(text, sliceLength);
    for (const auto& input : request.inputs()) checkContents(input);
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
        if (text.starts_with('d')) {
            readDescription(text.substr(1));
        } else if (text.starts_with('p')) {
            readMessage(text.substr(1));
        } else {
            readBody(text);
        }
    } catch (const Failure&) {
        return 0;  // told to the client
    }
    return 0;
}
