#pragma once

#include <grpcpp/completion_queue.h>

#include <cstddef>

namespace kelm::bench {

// The bytes of an infer request, and of the create answer and the done event together, which gRPC
// sends as one.
constexpr size_t kEchoRequestBytes = 928;
constexpr size_t kEchoAnswerBytes = 552 + 560;

// What waits in a completion queue.
class EchoStep {
 public:
    // The step that was waited for is over; not ok if its call has ended.
    virtual void next(bool ok) = 0;

 protected:
    ~EchoStep() = default;
};

// One turn of a queue; false once it is shut down.
inline bool runNextStep(grpc::CompletionQueue& queue) {
    void* step = nullptr;
    bool ok = false;
    if (!queue.Next(&step, &ok)) return false;
    static_cast<EchoStep*>(step)->next(ok);
    return true;
}

}  // namespace kelm::bench
