#include "tools/gateway/grpc/GrpcMethods.h"

#include "tools/gateway/Failure.h"
#include "tools/gateway/grpc/GrpcLoop.h"
#include "tools/gateway/grpc/ProtoBytes.h"

namespace kelm::gateway {

namespace {

using grpc::health::v1::HealthCheckRequest;
using grpc::health::v1::HealthCheckResponse;

class PlainCall;

// A method: how its calls are asked for, and what its answer is. Throws a Failure.
struct Method {
    void (*request)(GrpcServices& services, grpc::ServerContext& context, CallStream& stream,
                    grpc::ServerCompletionQueue& queue, void* tag);
    grpc::ByteBuffer (*answer)(PlainCall& call, grpc::ByteBuffer& message);
    const char* operation;
};

class PlainCall final : public UnaryCall {
 public:
    PlainCall(GrpcLoop& owner, GrpcServices& services, const Gateway& gateway, const Method& method)
        : UnaryCall(owner, gateway, method.operation), m_services(services), m_method(method) {}
    using UnaryCall::findModel;
    using UnaryCall::gateway;

 private:
    void request(CallStream& to, void* tag) override {
        m_method.request(m_services, context(), to, loop().queue(), tag);
    }
    std::unique_ptr<GrpcCall> another() override {
        return std::make_unique<PlainCall>(loop(), m_services, gateway(), m_method);
    }
    void serve(grpc::ByteBuffer& message) override { answer(m_method.answer(*this, message)); }

    GrpcServices& m_services;
    const Method& m_method;
};

template <class Request, class Answer, void (*kFill)(const Gateway&, const Request&, Answer&)>
grpc::ByteBuffer answerWith(PlainCall& call, grpc::ByteBuffer& message) {
    Answer answer;
    kFill(call.gateway(), parseProto<Request>(message), answer);
    return toBytes(answer);
}

template <class Request, class Answer, void (*kFill)(const Model&, Answer&)>
grpc::ByteBuffer answerOfModel(PlainCall& call, grpc::ByteBuffer& message) {
    const auto request = parseProto<Request>(message);
    Answer answer;
    kFill(*call.findModel(request.name(), request.version()), answer);
    return toBytes(answer);
}

void tellLive(const Gateway&, const inference::ServerLiveRequest&,
              inference::ServerLiveResponse& answer) {
    answer.set_live(true);
}

void tellReady(const Gateway& gateway, const inference::ServerReadyRequest&,
               inference::ServerReadyResponse& answer) {
    answer.set_ready(gateway.isReady());
}

void tellModelReady(const Model& model, inference::ModelReadyResponse& answer) {
    answer.set_ready(model.whyNot().empty());
}

void describeServer(const Gateway&, const inference::ServerMetadataRequest&,
                    inference::ServerMetadataResponse& answer) {
    answer.set_name(Gateway::kName);
    answer.set_version(KELM_VERSION);
}

void describeTensor(const TensorDescription& tensor,
                    inference::ModelMetadataResponse::TensorMetadata& answer) {
    answer.set_name(tensor.name);
    answer.set_datatype(std::string(infoOf(tensor.datatype).name));
    answer.mutable_shape()->Add(tensor.shape.begin(), tensor.shape.end());
}

void describeModel(const Model& model, inference::ModelMetadataResponse& answer) {
    const ModelDescription& about = model.description();
    answer.set_name(about.name);
    answer.add_versions(about.version);
    answer.set_platform(about.platform);
    for (const auto& each : about.inputs) describeTensor(each, *answer.add_inputs());
    for (const auto& each : about.outputs) describeTensor(each, *answer.add_outputs());
}

void check(const Gateway& gateway, const HealthCheckRequest& request, HealthCheckResponse& answer) {
    answer.set_status(healthOf(gateway, request.service()));
    if (answer.status() == HealthCheckResponse::SERVICE_UNKNOWN) {
        throw Failure(Cause::kNotFound, "there is no service '" + request.service() + "'");
    }
}

template <auto kService, int kMethod>
void requestBy(GrpcServices& services, grpc::ServerContext& context, CallStream& stream,
               grpc::ServerCompletionQueue& queue, void* tag) {
    (services.*kService).request(kMethod, context, stream, queue, tag);
}

constexpr auto kInference = &GrpcServices::inference;
constexpr auto kHealth = &GrpcServices::health;
constexpr Method kMethods[] = {
    {requestBy<kInference, GrpcServices::kServerLive>,
     answerWith<inference::ServerLiveRequest, inference::ServerLiveResponse, tellLive>, "live"},
    {requestBy<kInference, GrpcServices::kServerReady>,
     answerWith<inference::ServerReadyRequest, inference::ServerReadyResponse, tellReady>, "ready"},
    {requestBy<kInference, GrpcServices::kModelReady>,
     answerOfModel<inference::ModelReadyRequest, inference::ModelReadyResponse, tellModelReady>,
     "model_ready"},
    {requestBy<kInference, GrpcServices::kServerMetadata>,
     answerWith<inference::ServerMetadataRequest, inference::ServerMetadataResponse,
                describeServer>,
     "server"},
    {requestBy<kInference, GrpcServices::kModelMetadata>,
     answerOfModel<inference::ModelMetadataRequest, inference::ModelMetadataResponse,
                   describeModel>,
     "model"},
    {requestBy<kHealth, GrpcServices::kCheck>,
     answerWith<HealthCheckRequest, HealthCheckResponse, check>, "health"},
};

}  // namespace

HealthCheckResponse::ServingStatus healthOf(const Gateway& gateway, const std::string& service) {
    if (service.empty() || service == inference::GRPCInferenceService::service_full_name()) {
        return gateway.isReady() ? HealthCheckResponse::SERVING : HealthCheckResponse::NOT_SERVING;
    }
    const auto model = gateway.models().lookUp(service);
    if (model == nullptr) return HealthCheckResponse::SERVICE_UNKNOWN;
    return gateway.isReady() && model->whyNot().empty() ? HealthCheckResponse::SERVING
                                                        : HealthCheckResponse::NOT_SERVING;
}

std::vector<std::unique_ptr<GrpcCall>> makePlainCalls(GrpcLoop& loop, GrpcServices& services,
                                                      const Gateway& gateway) {
    std::vector<std::unique_ptr<GrpcCall>> calls;
    for (const Method& each : kMethods) {
        calls.push_back(std::make_unique<PlainCall>(loop, services, gateway, each));
    }
    return calls;
}

}  // namespace kelm::gateway
