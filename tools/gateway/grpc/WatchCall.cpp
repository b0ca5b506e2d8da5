#include "tools/gateway/grpc/WatchCall.h"

#include <memory>

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
      m_arrived(tag(&WatchCall::onArrived)),
      m_done(tag(&WatchCall::onDone)),
      m_written(tag(&WatchCall::onWritten)),
      m_writer(&context()) {}

void WatchCall::ask() {
    context().AsyncNotifyWhenDone(&m_done);
    m_services.health.RequestWatch(&context(), &m_message, &m_writer, &loop().queue(),
                                   &loop().queue(), &m_arrived);
}

void WatchCall::onArrived(bool ok) {
    if (!ok) return loop().drop(*this);
    loop().arrived(*this);
    loop().add(std::make_unique<WatchCall>(loop(), m_services, m_gateway, m_isEnding));
    try {
        m_service = parseProto<HealthCheckRequest>(m_message).service();
        look(Clock::now());
    } catch (const Failure& failure) {
        finish({static_cast<grpc::StatusCode>(failure.grpcCode()), failure.what()});
    }
}

void WatchCall::look(Clock::time_point) {
    if (m_isWriting || m_isFinished || m_isDone) return;
    if (m_isEnding) return finish({grpc::StatusCode::UNAVAILABLE, "the gateway ends"});
    const auto status = healthOf(m_gateway, m_service);
    if (status == m_told) return;
    m_told = status;
    HealthCheckResponse response;
    response.set_status(status);
    m_isWriting = true;
    m_writer.Write(toBytes(response), &m_written);
}

void WatchCall::onWritten(bool) {
    m_isWriting = false;
    dropIfOver();
}

void WatchCall::finish(const grpc::Status& status) {
    m_isWriting = true;
    m_isFinished = true;
    m_writer.Finish(status, &m_written);
}

void WatchCall::onDone(bool) {
    m_isDone = true;
    dropIfOver();
}

void WatchCall::dropIfOver() {
    if (m_isDone && !m_isWriting) loop().drop(*this);
}

}  // namespace kelm::gateway
