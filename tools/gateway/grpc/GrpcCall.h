#pragma once

#include <grpcpp/server_context.h>

#include <chrono>

#include "utils/NonCopyable.h"

namespace kelm::gateway {

class GrpcLoop;

// A call of a method, from before it comes to when its loop drops it.
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

    explicit GrpcCall(GrpcLoop& loop) : m_loop(loop) {}
    virtual ~GrpcCall() = default;

    // Awaits a peer's call.
    virtual void ask() = 0;
    // A few times a second once a peer has called.
    virtual void look(Clock::time_point now) = 0;

 protected:
    template <class Call>
    Tag tag(void (Call::*happened)(bool ok)) {
        return {this, static_cast<void (GrpcCall::*)(bool)>(happened)};
    }
    GrpcLoop& loop() { return m_loop; }
    grpc::ServerContext& context() { return m_context; }

 private:
    GrpcLoop& m_loop;
    grpc::ServerContext m_context;
};

}  // namespace kelm::gateway
