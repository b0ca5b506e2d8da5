#pragma once

#include <grpcpp/support/byte_buffer.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>

#include "tools/gateway/Gateway.h"
#include "tools/gateway/grpc/GrpcCall.h"
#include "tools/gateway/grpc/GrpcServices.h"

namespace kelm::gateway {

// A peer that watches the health of the gateway or of a model: told at once, and when it is another
// at a look.
//
// Threads: its loop's. Borrowed for its life: all that it is given.
class WatchCall final : public GrpcCall {
 public:
    // The call ends when `isEnding`.
    WatchCall(GrpcLoop& loop, GrpcServices& services, const Gateway& gateway,
              const std::atomic<bool>& isEnding);
    ~WatchCall() override;

 private:
    void request(CallStream& stream, void* tag) override;
    std::unique_ptr<GrpcCall> another() override;
    void begin() override;
    void admit() override;
    void serve(grpc::ByteBuffer& message) override;
    void fail(const Failure& failure) override;
    void lookAtAnswer() override;
    void dropIfOver() override;
    void onWritten(bool ok);

    GrpcServices& m_services;
    const Gateway& m_gateway;
    const std::atomic<bool>& m_isEnding;
    Tag m_written;
    std::string m_peer;  // who watches; empty: nobody has called yet
    std::string m_service;
    std::optional<grpc::health::v1::HealthCheckResponse::ServingStatus> m_told;
    bool m_isFinished = false;
};

}  // namespace kelm::gateway
