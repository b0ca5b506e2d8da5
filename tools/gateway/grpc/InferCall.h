#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/gateway/Gateway.h"
#include "tools/gateway/Inference.h"
#include "tools/gateway/grpc/GrpcServices.h"
#include "tools/gateway/grpc/InferMessage.h"
#include "tools/gateway/grpc/UnaryCall.h"

namespace kelm::gateway {

// A call of ModelInfer. Tensors that come raw are copied once, from the message to the slot, and go
// out of the slot as they are.
//
// Threads: the loop's, but for the task's end. Borrowed for its life: all that it is given.
class InferCall final : public UnaryCall {
 public:
    InferCall(GrpcLoop& owner, GrpcServices& services, const Gateway& gateway)
        : UnaryCall(owner, gateway, "infer"),
          m_services(services),
          m_ended(tag(&InferCall::onEnd)) {}

 private:
    void request(CallStream& stream, void* tag) override;
    size_t mostMessage() override;
    std::unique_ptr<GrpcCall> another() override;
    void serve(grpc::ByteBuffer& message) override;
    void onCanceled() override;

    void fillIn(const InferMessage& message);
    Inference::Wish readWish(const inference::ModelInferRequest& request);
    void onEnd(bool);
    grpc::ByteBuffer makeAnswer();

    GrpcServices& m_services;
    Tag m_ended;
    bool m_isRaw = false;
    inference::ModelInferResponse m_answer;  // until the task's end without the outputs
    std::vector<const TensorDescription*> m_outputs;
    std::shared_ptr<Inference> m_inference;
    TaskEnd m_end;
};

}  // namespace kelm::gateway
