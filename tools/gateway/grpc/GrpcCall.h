#pragma once

#include <grpcpp/server_context.h>
#include <grpcpp/support/byte_buffer.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>

#include "tools/gateway/grpc/GrpcServices.h"
#include "utils/NonCopyable.h"

namespace kelm::gateway {

class Failure;
class GrpcLoop;

// A call of a method with one message, from before it comes to when its loop drops it. The message
// has its time to come: a base and a second for each MB of the method's largest one, as its size is
// not told before it is whole.
//
// Threads: its loop's, where nothing else is said. Owned by the loop.
class GrpcCall : public NonCopyable {
 public:
    using Clock = std::chrono::steady_clock;
    // What gRPC gives back when what was begun is over; not ok if it came to nothing.
    struct Tag {
        GrpcCall* call;
        void (GrpcCall::*happened)(bool ok);
    };

    explicit GrpcCall(GrpcLoop& loop);
    virtual ~GrpcCall() = default;

    // Awaits a peer's call.
    void ask();
    // A few times a second once a peer has called.
    void look(Clock::time_point now);

 protected:
    // Asks the service for a call of the method.
    virtual void request(CallStream& stream, void* tag) = 0;
    // Bytes of the largest one that is served.
    virtual size_t mostMessage();
    // A new call of the same kind.
    virtual std::unique_ptr<GrpcCall> another() = 0;
    // The head is there.
    virtual void begin() {}
    // Throws a Failure if there are too many of its kind, it among them.
    virtual void admit();
    // Answers now or later; an exception is an answer, too. The message goes when it returns.
    virtual void serve(grpc::ByteBuffer& message) = 0;
    // The last that is done to the call.
    virtual void fail(const Failure& failure) = 0;
    // A look at one that has its message, while nothing is written.
    virtual void lookAtAnswer() {}
    // What is over may be more of it than gRPC's part.
    virtual void dropIfOver() = 0;
    // Nothing more will come from the peer.
    virtual void onDone() {}

    template <class Call>
    Tag tag(void (Call::*happened)(bool ok)) {
        return {this, static_cast<void (GrpcCall::*)(bool)>(happened)};
    }
    GrpcLoop& loop() { return m_loop; }
    grpc::ServerContext& context() { return m_context; }
    CallStream& stream() { return m_stream; }
    // So many bytes are written; a peer that does not take them in time has the call canceled.
    void beginWriting(size_t bytes);
    void endWriting() { m_mostWriting.reset(); }
    bool isWriting() const { return m_mostWriting.has_value(); }
    size_t messageBytes() const { return m_messageBytes; }
    // Nothing more is awaited of gRPC but for the end of what is written.
    bool isDone() const { return m_isDone && !m_isReading; }
    // The peer, or gRPC for it, has given the call up before its message was there. Once it is
    // done.
    bool isWithoutMessage() const { return !m_hasMessage && m_context.IsCancelled(); }

 private:
    // When so many bytes should have passed.
    Clock::time_point timeFor(size_t bytes) const;
    void onArrived(bool ok);
    void onRead(bool ok);
    void onGone(bool ok);

    GrpcLoop& m_loop;
    Tag m_arrived;
    Tag m_read;
    Tag m_gone;
    grpc::ServerContext m_context;
    CallStream m_stream;
    grpc::ByteBuffer m_message;
    Clock::time_point m_mostReading;  // while the message is read
    std::optional<Clock::time_point> m_mostWriting;
    size_t m_messageBytes = 0;
    bool m_isReading = false;
    bool m_isLate = false;  // and was answered
    bool m_hasMessage = false;
    bool m_isDone = false;
};

}  // namespace kelm::gateway
