#include "tools/gateway/grpc/InferCall.h"

#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/wire_format_lite.h>
#include <grpc/support/time.h>
#include <grpcpp/support/slice.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <exception>
#include <span>
#include <utility>

#include "tools/gateway/Failure.h"
#include "tools/gateway/RequestRules.h"
#include "tools/gateway/grpc/Contents.h"
#include "tools/gateway/grpc/GrpcLoop.h"

namespace kelm::gateway {

namespace {

using google::protobuf::internal::WireFormatLite;
using google::protobuf::io::CodedOutputStream;
using Request = inference::ModelInferRequest;
using std::chrono::microseconds;

std::optional<uint64_t> readCount(const Request& request, const char* key, uint64_t most) {
    const auto found = request.parameters().find(key);
    if (found == request.parameters().end()) return std::nullopt;
    const inference::InferParameter& value = found->second;
    const bool isSigned = value.has_int64_param() && value.int64_param() >= 0;
    const uint64_t count =
        isSigned ? static_cast<uint64_t>(value.int64_param()) : value.uint64_param();
    if ((!isSigned && !value.has_uint64_param()) || count > most) {
        refuse(std::string("'") + key + "' must be a whole number from 0 to " +
               std::to_string(most));
    }
    return count;
}

Shape readShape(const Request::InferInputTensor& input) {
    const auto& shape = input.shape();
    if (shape.size() > static_cast<int>(kMostDimensions)) {
        refuse("input '" + input.name() + "' has more than " + std::to_string(kMostDimensions) +
               " dimensions");
    }
    return {shape.begin(), shape.end()};
}

void requireShortTexts(const Request& request) {
    requireShort(request.id(), "id");
    for (const auto& each : request.inputs()) {
        requireShort(each.name(), "name");
        requireShort(each.datatype(), "datatype");
    }
    for (const auto& each : request.outputs()) requireShort(each.name(), "name");
}

// The time that the caller gives it; nothing if that is no limit.
std::optional<microseconds> timeLeft(const grpc::ServerContext& context) {
    // gRPC's own time: one of <chrono> overflows with centuries, which a peer may ask for.
    const gpr_timespec deadline = context.raw_deadline();
    if (::gpr_time_cmp(deadline, ::gpr_inf_future(deadline.clock_type)) == 0) return std::nullopt;
    const gpr_timespec left = ::gpr_time_sub(deadline, ::gpr_now(deadline.clock_type));
    // At most 24 days.
    const std::chrono::milliseconds bounded(::gpr_time_to_millis(left));
    return std::min<microseconds>(bounded, microseconds(kLongestTimeout));
}

// What stands before a raw content, so that its bytes are the next slice.
grpc::Slice makeRawHead(size_t bytes) {
    std::array<uint8_t, 16> head{};
    constexpr uint32_t kTag =
        WireFormatLite::MakeTag(inference::ModelInferResponse::kRawOutputContentsFieldNumber,
                                WireFormatLite::WIRETYPE_LENGTH_DELIMITED);
    uint8_t* end = CodedOutputStream::WriteVarint32ToArray(kTag, head.data());
    end = CodedOutputStream::WriteVarint64ToArray(bytes, end);
    return {head.data(), static_cast<size_t>(end - head.data())};
}

// An output in its slot, which is given back when gRPC has sent it.
grpc::Slice makeSlice(std::span<const std::byte> bytes, std::shared_ptr<Inference> owner) {
    auto kept = std::make_unique<std::shared_ptr<Inference>>(std::move(owner));
    const auto release = [](void* what) { delete static_cast<std::shared_ptr<Inference>*>(what); };
    // gRPC only reads it.
    void* const data = const_cast<std::byte*>(bytes.data());
    return {data, bytes.size(), release, kept.release()};
}

}  // namespace

void InferCall::request(CallStream& to, void* tag) {
    m_services.inference.request(GrpcServices::kModelInfer, context(), to, loop().queue(), tag);
}

size_t InferCall::mostMessage() { return loop().limits().message; }

std::unique_ptr<GrpcCall> InferCall::another() {
    return std::make_unique<InferCall>(loop(), m_services, gateway());
}

void InferCall::serve(grpc::ByteBuffer& bytes) {
    const auto message = InferMessage::read(bytes, loop().limits().text);
    const Request& request = message.request;
    const auto model = findModel(request.model_name(), request.model_version());
    requireShortTexts(request);
    const Inference::Wish wish = readWish(request);
    const ModelDescription& about = model->description();
    std::vector<std::string> names;
    for (const auto& each : request.outputs()) names.push_back(each.name());
    m_outputs = about.chooseOutputs(names);
    m_isRaw = !message.raw.empty();
    for (const TensorDescription* each : m_outputs) {
        if (m_isRaw || infoOf(each->datatype).hasJson) continue;
        refuse("output '" + each->name + "' has datatype " +
               std::string(infoOf(each->datatype).name) +
               ", which has no contents; send raw inputs to get it raw");
    }
    m_answer.set_model_name(about.name);
    m_answer.set_model_version(about.version);
    m_answer.set_id(request.id());
    m_inference = Inference::admit(model);
    fillIn(message);
    bytes.Clear();
    m_inference->start(wish, [this](const TaskEnd& end) {
        m_end = end;
        loop().post(m_ended);
    });
}

Inference::Wish InferCall::readWish(const Request& request) {
    Inference::Wish wish{.begun = Clock::now(), .timeout = timeLeft(context()), .priority = {}};
    const auto timeout = readCount(request, "timeout", kLongestTimeout);
    if (timeout.value_or(0) > 0) {
        wish.timeout =
            std::min(wish.timeout.value_or(microseconds(kLongestTimeout)), microseconds(*timeout));
    }
    if (const auto priority = readCount(request, "priority", kHighestPriority)) {
        wish.priority = static_cast<uint32_t>(*priority);
    }
    return wish;
}

void InferCall::fillIn(const InferMessage& message) {
    const auto& inputs = message.request.inputs();
    if (m_isRaw && message.raw.size() != static_cast<size_t>(inputs.size())) {
        refuse("there are " + std::to_string(inputs.size()) + " inputs and " +
               std::to_string(message.raw.size()) + " raw contents");
    }
    for (int i = 0; i < inputs.size(); ++i) {
        const auto& input = inputs[i];
        TensorClaim claim{input.name(), input.datatype(), readShape(input), 0};
        if (m_isRaw) {
            if (countContents(input.contents()) > 0) {
                refuse("input '" + claim.name + "' has contents, and there are raw ones");
            }
            claim.bytes = message.raw[i].bytes;
            message.raw[i].copyTo(m_inference->claimInput(claim));
            continue;
        }
        const auto type = findDatatype(claim.datatype);
        if (!type) refuse("there is no datatype '" + claim.datatype + "'");
        const std::string bytes = readContents(input.contents(), claim.name, *type);
        claim.bytes = bytes.size();
        std::memcpy(m_inference->claimInput(claim).data(), bytes.data(), bytes.size());
    }
}

void InferCall::onCanceled() {
    if (m_inference != nullptr) m_inference->cancel();
}

void InferCall::onEnd(bool) {
    record().atService = m_end.atService;
    try {
        if (m_end.error != 0) throw Failure::ofKelm(m_end.error, m_end.text);
        answer(makeAnswer());
    } catch (const Failure& failure) {
        fail(failure);
    } catch (const std::exception& error) {
        fail(Failure(Cause::kInternal, error.what()));
    }
}

grpc::ByteBuffer InferCall::makeAnswer() {
    std::vector<grpc::Slice> slices(1);
    for (const TensorDescription* each : m_outputs) {
        const auto bytes = m_inference->output(*each);
        auto& output = *m_answer.add_outputs();
        output.set_name(each->name);
        output.set_datatype(std::string(infoOf(each->datatype).name));
        output.mutable_shape()->Add(each->shape.begin(), each->shape.end());
        if (m_isRaw) {
            slices.push_back(makeRawHead(bytes.size()));
            slices.push_back(makeSlice(bytes, m_inference));
        } else {
            appendContents(*output.mutable_contents(), each->datatype, bytes);
        }
    }
    slices.front() = grpc::Slice(m_answer.SerializeAsString());
    return {slices.data(), slices.size()};
}

}  // namespace kelm::gateway
