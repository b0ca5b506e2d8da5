#include "tools/gateway/grpc/WatchCall.h"

#include <memory>

#include "tools/gateway/Failure.h"
#include "tools/gateway/grpc/GrpcLoop.h"
#include "tools/gateway/grpc/GrpcMethods.h"
#include "tools/gateway/grpc/ProtoBytes.h"

namespace kelm::gateway {

namespace {

using grpc::health::v1::HealthCheckRequest;
using grpc::health::v1::HealthCheckResponse;

}  // namespace

WatchCall::WatchCall(GrpcLoop& owner, GrpcServices& services, const Gateway& gateway,
                     const std::atomic<bool>& isEnding)
    : GrpcCall(owner),
      m_services(services),
      m_gateway(gateway),
      m_isEnding(isEnding),
      m_written(tag(&WatchCall::onWritten)) {}

void WatchCall::request(CallStream& to, void* tag) {
    m_services.health.request(GrpcServices::kWatch, context(), to, loop().queue(), tag);
}

std::unique_ptr<GrpcCall> WatchCall::another() {
    return std::make_unique<WatchCall>(loop(), m_services, m_gateway, m_isEnding);
}

void WatchCall::serve(grpc::ByteBuffer& message) {
    m_service = parseProto<HealthCheckRequest>(message).service();
    requireShort(m_service, "service");
    lookAtAnswer(Clock::now());
}

void WatchCall::lookAtAnswer(Clock::time_point) {
    if (m_isWriting || m_isFinished || isDone()) return;
    if (m_isEnding) return fail(Failure(Cause::kUnavailable, "the gateway ends"));
    const auto status = healthOf(m_gateway, m_service);
    if (status == m_told) return;
    m_told = status;
    HealthCheckResponse response;
    response.set_status(status);
    m_isWriting = true;
    stream().Write(toBytes(response), &m_written);
}

void WatchCall::onWritten(bool) {
    m_isWriting = false;
    dropIfOver();
}

void WatchCall::fail(const Failure& failure) {
    m_isWriting = true;
    m_isFinished = true;
    stream().Finish({static_cast<grpc::StatusCode>(failure.grpcCode()), failure.what()},
                    &m_written);
}

void WatchCall::dropIfOver() {
    if (isDone() && !m_isWriting) loop().drop(*this);
}

}  // namespace kelm::gateway
