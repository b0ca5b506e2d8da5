#pragma once

#include <grpcpp/completion_queue.h>
#include <grpcpp/server_context.h>
#include <grpcpp/support/async_stream.h>
#include <grpcpp/support/byte_buffer.h>

#include "tools/gateway/grpc/Protos.h"

namespace kelm::gateway {

// The messages of a call either way, each as bytes, so that ours are the answers to malformed ones,
// too.
using CallStream = grpc::ServerAsyncReaderWriter<grpc::ByteBuffer, grpc::ByteBuffer>;

// A service that tells of a call at its head. By gRPC's own way for calls with one message it would
// once the message is there, and a peer that never sends all of it would have all the time.
template <class Service, int kMethods>
class RawService : public Service {
 public:
    RawService() {
        for (int method = 0; method < kMethods; ++method) {
            this->MarkMethodStreamed(method, nullptr);
            this->MarkMethodRaw(method);
        }
    }
    // Asks for a call of the method.
    void request(int method, grpc::ServerContext& context, CallStream& stream,
                 grpc::ServerCompletionQueue& queue, void* tag) {
        this->RequestAsyncBidiStreaming(method, &context, &stream, &queue, &queue, tag);
    }
};

// What is registered with gRPC. Methods have the numbers of their order in the .proto files.
struct GrpcServices {
    enum { kServerLive, kServerReady, kModelReady, kServerMetadata, kModelMetadata, kModelInfer };
    enum { kCheck, kWatch };

    RawService<inference::GRPCInferenceService::Service, kModelInfer + 1> inference;
    RawService<grpc::health::v1::Health::Service, kWatch + 1> health;
};

}  // namespace kelm::gateway
