#include "tools/gateway/grpc/UnaryCall.h"

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
    : GrpcCall(owner), m_gateway(gateway), m_answered(tag(&UnaryCall::onAnswered)) {
    m_record.protocol = Protocol::kGrpc;
    m_record.operation = operation;
}

void UnaryCall::begin() {
    m_record.begun = Clock::now();
    m_record.id = readRequestId(context());
}

std::shared_ptr<Model> UnaryCall::findModel(const std::string& name, const std::string& version) {
    requireShort(name, "model_name");
    m_record.model = name;
    auto model = m_gateway.models().find(name, version);
    m_record.version = model->description().version;
    m_record.isKnown = true;
    return model;
}

void UnaryCall::answer(const grpc::ByteBuffer& bytes) {
    context().AddInitialMetadata(kRequestId, m_record.id);
    m_record.bytesOut = bytes.Length();
    beginWriting(bytes.Length());
    stream().WriteAndFinish(bytes, {}, grpc::Status::OK, &m_answered);
}

void UnaryCall::fail(const Failure& failure) {
    const bool isAgain = failure.cause() == Cause::kFull || failure.cause() == Cause::kUnavailable;
    m_record.code = failure.grpcCode();
    m_record.error = failure.what();
    // Clients try again only where a failure comes without initial metadata.
    context().AddTrailingMetadata(kRequestId, m_record.id);
    // What stock clients with a policy to try again go by.
    if (isAgain) context().AddTrailingMetadata("grpc-retry-pushback-ms", "1000");
    beginWriting(m_record.error.size());
    stream().Finish({static_cast<grpc::StatusCode>(failure.grpcCode()), failure.what()},
                    &m_answered);
}

void UnaryCall::onDone() {
    if (!m_isAnswered && context().IsCancelled()) onCanceled();
}

void UnaryCall::onAnswered(bool) {
    endWriting();
    m_isAnswered = true;
    dropIfOver();
}

void UnaryCall::dropIfOver() {
    if (!isDone() || !m_isAnswered) return;
    m_record.bytesIn = messageBytes();
    if (isWithoutMessage()) {
        const Failure failure(Cause::kCanceled, "the message did not come whole, or was too large");
        m_record.code = failure.grpcCode();
        m_record.error = failure.what();
    }
    m_gateway.recordEnd(std::move(m_record));
    loop().drop(*this);
}

}  // namespace kelm::gateway
