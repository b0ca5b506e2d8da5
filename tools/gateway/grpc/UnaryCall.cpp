#include "tools/gateway/grpc/UnaryCall.h"

#include <chrono>
#include <exception>
#include <utility>

#include "tools/gateway/Failure.h"
#include "tools/gateway/grpc/GrpcLoop.h"

namespace kelm::gateway {

namespace {

constexpr const char* kRequestId = "x-request-id";

std::string readRequestId(const grpc::ServerContext& context) {
    const auto& metadata = context.client_metadata();
    const auto given = metadata.find(kRequestId);
    if (given == metadata.end()) return pickRequestId({});
    return pickRequestId({given->second.data(), given->second.size()});
}

}  // namespace

UnaryCall::UnaryCall(GrpcLoop& owner, const Gateway& gateway, const char* operation)
    : GrpcCall(owner),
      m_gateway(gateway),
      m_arrived(tag(&UnaryCall::onArrived)),
      m_done(tag(&UnaryCall::onDone)),
      m_answered(tag(&UnaryCall::onAnswered)),
      m_responder(&context()) {
    m_record.protocol = Protocol::kGrpc;
    m_record.operation = operation;
}

void UnaryCall::ask() {
    context().AsyncNotifyWhenDone(&m_done);
    request(context(), m_message, m_responder, loop().queue(), &m_arrived);
}

void UnaryCall::onArrived(bool ok) {
    if (!ok) return loop().drop(*this);  // the server ends, and nothing else will happen
    loop().arrived(*this);
    loop().add(another());
    m_record.begun = Clock::now();
    m_record.bytesIn = m_message.Length();
    m_record.id = readRequestId(context());
    try {
        serve(m_message);
    } catch (const Failure& failure) {
        fail(failure);
    } catch (const std::exception& error) {
        fail(Failure(Cause::kInternal, error.what()));
    }
}

std::shared_ptr<Model> UnaryCall::findModel(const std::string& name, const std::string& version) {
    m_record.model = name;
    auto model = m_gateway.models().find(name, version);
    m_record.version = model->description().version;
    m_record.isKnown = true;
    return model;
}

void UnaryCall::answer(const grpc::ByteBuffer& bytes) {
    context().AddInitialMetadata(kRequestId, m_record.id);
    m_record.bytesOut = bytes.Length();
    m_mostTime =
        Clock::now() + loop().limits().transfer + std::chrono::seconds(bytes.Length() >> 20);
    m_responder.Finish(bytes, grpc::Status::OK, &m_answered);
}

void UnaryCall::fail(const Failure& failure) {
    const bool isAgain = failure.cause() == Cause::kFull || failure.cause() == Cause::kUnavailable;
    m_record.code = failure.grpcCode();
    m_record.error = failure.what();
    // Clients try again only where a failure comes without initial metadata.
    context().AddTrailingMetadata(kRequestId, m_record.id);
    // What stock clients with a policy to try again go by.
    if (isAgain) context().AddTrailingMetadata("grpc-retry-pushback-ms", "1000");
    m_mostTime = Clock::now() + loop().limits().transfer;
    m_responder.FinishWithError({static_cast<grpc::StatusCode>(failure.grpcCode()), failure.what()},
                                &m_answered);
}

void UnaryCall::look(Clock::time_point now) {
    if (m_mostTime && now > *m_mostTime) context().TryCancel();
}

void UnaryCall::onDone(bool) {
    m_isDone = true;
    if (!m_isAnswered && context().IsCancelled()) onCanceled();
    dropIfOver();
}

void UnaryCall::onAnswered(bool) {
    m_mostTime.reset();
    m_isAnswered = true;
    dropIfOver();
}

void UnaryCall::dropIfOver() {
    if (!m_isDone || !m_isAnswered) return;
    m_gateway.recordEnd(std::move(m_record));
    loop().drop(*this);
}

}  // namespace kelm::gateway
