#include "tools/gateway/grpc/GrpcCall.h"

#include <exception>
#include <string>

#include "tools/gateway/Failure.h"
#include "tools/gateway/grpc/GrpcLoop.h"

namespace kelm::gateway {

GrpcCall::GrpcCall(GrpcLoop& owner)
    : m_loop(owner),
      m_arrived(tag(&GrpcCall::onArrived)),
      m_read(tag(&GrpcCall::onRead)),
      m_gone(tag(&GrpcCall::onGone)),
      m_stream(&m_context) {}

void GrpcCall::ask() {
    m_context.AsyncNotifyWhenDone(&m_gone);
    request(m_stream, &m_arrived);
}

void GrpcCall::onArrived(bool ok) {
    if (!ok) return m_loop.drop(*this);  // the server ends, and nothing else will happen
    m_loop.arrived(*this);
    m_loop.add(another());
    begin();
    try {
        admit();
    } catch (const Failure& failure) {
        return fail(failure);
    }
    m_mostReading = timeFor(mostMessage());
    m_isReading = true;
    m_stream.Read(&m_message, &m_read);
}

void GrpcCall::admit() {
    const size_t most = m_loop.limits().calls;
    if (m_loop.answering() <= most) return;
    throw Failure(Cause::kFull, "there are too many calls, more than " + std::to_string(most) +
                                    "; try again later");
}

GrpcCall::Clock::time_point GrpcCall::timeFor(size_t bytes) const {
    return Clock::now() + m_loop.limits().transfer + std::chrono::seconds(bytes >> 20);
}

void GrpcCall::beginWriting(size_t bytes) { m_mostWriting = timeFor(bytes); }

size_t GrpcCall::mostMessage() { return m_loop.limits().plain; }

void GrpcCall::onRead(bool ok) {
    m_isReading = false;
    m_hasMessage = ok;
    grpc::ByteBuffer message;  // ends here: the call may last
    message.Swap(&m_message);
    m_messageBytes = message.Length();
    if (m_isLate) return dropIfOver();
    try {
        if (!m_hasMessage) throw Failure(Cause::kInvalid, "the call has no message");
        if (m_messageBytes > mostMessage()) {
            throw Failure(Cause::kTooLarge, "the message is larger than " +
                                                std::to_string(mostMessage()) +
                                                " bytes, the most for this method");
        }
        serve(message);
    } catch (const Failure& failure) {
        fail(failure);
    } catch (const std::exception& error) {
        fail(Failure(Cause::kInternal, error.what()));
    }
}

void GrpcCall::look(Clock::time_point now) {
    if (isWriting()) {
        if (now > *m_mostWriting) m_context.TryCancel();
        return;
    }
    if (!m_isReading) return lookAtAnswer();
    if (m_isLate || now <= m_mostReading) return;
    m_isLate = true;
    fail(Failure(Cause::kExpired, "the message took too long to come"));
}

void GrpcCall::onGone(bool) {
    m_isDone = true;
    onDone();
    dropIfOver();
}

}  // namespace kelm::gateway
