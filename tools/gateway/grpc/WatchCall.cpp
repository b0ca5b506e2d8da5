#include "tools/gateway/grpc/WatchCall.h"

#include <memory>
#include <string>

#include "tools/gateway/Failure.h"
#include "tools/gateway/grpc/GrpcLoop.h"
#include "tools/gateway/grpc/GrpcMethods.h"
#include "tools/gateway/grpc/ProtoBytes.h"

namespace kelm::gateway {

namespace {

using grpc::health::v1::HealthCheckRequest;
using grpc::health::v1::HealthCheckResponse;

void requireAtMost(size_t most, size_t count, const char* whose) {
    if (count <= most) return;
    throw Failure(Cause::kFull, std::string("there are too many watchers") + whose +
                                    ", more than " + std::to_string(most) + "; try again later");
}

}  // namespace

WatchCall::WatchCall(GrpcLoop& owner, GrpcServices& services, const Gateway& gateway,
                     const std::atomic<bool>& isEnding)
    : GrpcCall(owner),
      m_services(services),
      m_gateway(gateway),
      m_isEnding(isEnding),
      m_written(tag(&WatchCall::onWritten)) {}

WatchCall::~WatchCall() {
    if (!m_peer.empty()) loop().watchers().remove(m_peer);
}

void WatchCall::begin() {
    m_peer = context().peer();
    loop().watchers().add(m_peer);
}

void WatchCall::admit() {
    const WatcherCount& count = loop().watchers();
    requireAtMost(loop().limits().watchers, count.all(), "");
    // Connections by Unix sockets have one name.
    if (m_peer.starts_with("unix:")) return;
    requireAtMost(loop().limits().watchersOfPeer, count.of(m_peer), " of one connection");
}

void WatchCall::request(CallStream& to, void* tag) {
    m_services.health.request(GrpcServices::kWatch, context(), to, loop().queue(), tag);
}

std::unique_ptr<GrpcCall> WatchCall::another() {
    return std::make_unique<WatchCall>(loop(), m_services, m_gateway, m_isEnding);
}

void WatchCall::serve(grpc::ByteBuffer& message) {
    m_service = parseProto<HealthCheckRequest>(message).service();
    requireShort(m_service, "service");
    lookAtAnswer();
}

void WatchCall::lookAtAnswer() {
    if (m_isFinished || isDone()) return;
    if (m_isEnding) return fail(Failure(Cause::kUnavailable, "the gateway ends"));
    const auto status = healthOf(m_gateway, m_service);
    if (status == m_told) return;
    m_told = status;
    HealthCheckResponse response;
    response.set_status(status);
    const grpc::ByteBuffer bytes = toBytes(response);
    beginWriting(bytes.Length());
    stream().Write(bytes, &m_written);
}

void WatchCall::onWritten(bool) {
    endWriting();
    dropIfOver();
}

void WatchCall::fail(const Failure& failure) {
    beginWriting(0);
    m_isFinished = true;
    stream().Finish({static_cast<grpc::StatusCode>(failure.grpcCode()), failure.what()},
                    &m_written);
}

void WatchCall::dropIfOver() {
    if (isDone() && !isWriting()) loop().drop(*this);
}

}  // namespace kelm::gateway
