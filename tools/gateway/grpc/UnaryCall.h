#pragma once

#include <grpcpp/support/byte_buffer.h>

#include <memory>
#include <string>

#include "tools/gateway/Gateway.h"
#include "tools/gateway/grpc/GrpcCall.h"

namespace kelm::gateway {

// A call with one answer, whose end the gateway is told.
//
// Threads: its loop's.
class UnaryCall : public GrpcCall {
 public:
    // The gateway is borrowed for its life.
    UnaryCall(GrpcLoop& loop, const Gateway& gateway, const char* operation);

 protected:
    // The peer has given it up before its answer.
    virtual void onCanceled() {}

    const Gateway& gateway() const { return m_gateway; }
    // What is told of it, but for what this class knows.
    RequestRecord& record() { return m_record; }
    // Throws a Failure if there is none.
    std::shared_ptr<Model> findModel(const std::string& name, const std::string& version);

    // This or fail(), once; the last that is done to the call.
    void answer(const grpc::ByteBuffer& bytes);
    void fail(const Failure& failure) override;

 private:
    void begin() override;
    void onDone() override;
    void dropIfOver() override;
    void onAnswered(bool ok);

    const Gateway& m_gateway;
    Tag m_answered;
    RequestRecord m_record;
    bool m_isAnswered = false;
};

}  // namespace kelm::gateway
