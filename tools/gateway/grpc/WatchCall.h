#pragma once

#include <grpcpp/support/async_stream.h>
#include <grpcpp/support/byte_buffer.h>

#include <atomic>
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

    void ask() override;
    void look(Clock::time_point now) override;

 private:
    void onArrived(bool ok);
    void onDone(bool ok);
    void onWritten(bool ok);
    void finish(const grpc::Status& status);
    void dropIfOver();

    GrpcServices& m_services;
    const Gateway& m_gateway;
    const std::atomic<bool>& m_isEnding;
    Tag m_arrived;
    Tag m_done;
    Tag m_written;
    grpc::ByteBuffer m_message;
    grpc::ServerAsyncWriter<grpc::ByteBuffer> m_writer;
    std::string m_service;
    std::optional<grpc::health::v1::HealthCheckResponse::ServingStatus> m_told;
    bool m_isWriting = false;
    bool m_isFinished = false;
    bool m_isDone = false;
};

}  // namespace kelm::gateway
