#pragma once

#include <grpcpp/completion_queue.h>
#include <grpcpp/support/async_unary_call.h>
#include <grpcpp/support/byte_buffer.h>

#include <memory>
#include <optional>

#include "tools/gateway/Gateway.h"
#include "tools/gateway/grpc/GrpcCall.h"

namespace kelm::gateway {

class Failure;

// A call with one message and one answer, both as bytes, whose end the gateway is told.
//
// Threads: its loop's.
class UnaryCall : public GrpcCall {
 public:
    // The gateway is borrowed for its life.
    UnaryCall(GrpcLoop& loop, const Gateway& gateway, const char* operation);

    void ask() override;
    // Ends it when the peer does not read the answer.
    void look(Clock::time_point now) override;

 protected:
    using Responder = grpc::ServerAsyncResponseWriter<grpc::ByteBuffer>;
    // Asks the service for a call of the method.
    virtual void request(grpc::ServerContext& context, grpc::ByteBuffer& message,
                         Responder& responder, grpc::ServerCompletionQueue& queue, void* tag) = 0;
    // A new call of the same kind.
    virtual std::unique_ptr<GrpcCall> another() = 0;
    // Answers now or later; an exception is an answer, too.
    virtual void serve(grpc::ByteBuffer& message) = 0;
    // The peer has given it up before its answer.
    virtual void onCanceled() {}

    const Gateway& gateway() const { return m_gateway; }
    // What is told of it, but for what this class knows.
    RequestRecord& record() { return m_record; }
    // Throws a Failure if there is none.
    std::shared_ptr<Model> findModel(const std::string& name, const std::string& version);

    // One of the two once; the last that is done to the call.
    void answer(const grpc::ByteBuffer& bytes);
    void fail(const Failure& failure);

 private:
    void onArrived(bool ok);
    void onDone(bool ok);
    void onAnswered(bool ok);
    void dropIfOver();

    const Gateway& m_gateway;
    Tag m_arrived;
    Tag m_done;
    Tag m_answered;
    grpc::ByteBuffer m_message;
    RequestRecord m_record;
    bool m_isDone = false;
    bool m_isAnswered = false;
    Responder m_responder;
    // When the peer should have read the answer.
    std::optional<Clock::time_point> m_mostTime;
};

}  // namespace kelm::gateway
