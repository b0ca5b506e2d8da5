#pragma once

#include <grpcpp/support/byte_buffer.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "tools/gateway/grpc/Protos.h"

namespace kelm::gateway {

// A tensor as it lies in a message, in pieces that are the message's.
struct RawContent {
    size_t bytes = 0;
    std::vector<std::span<const std::byte>> pieces;

    // Of the same size.
    void copyTo(std::span<std::byte> room) const;
};

// A request to infer, whose raw contents stay in the message: the one copy of them is to the slot.
struct InferMessage {
    // Throws a Failure if it is no such message, or has more tensors or text than it may.
    static InferMessage read(grpc::ByteBuffer& message, size_t mostText);

    inference::ModelInferRequest request;  // without raw contents
    std::vector<RawContent> raw;
};

}  // namespace kelm::gateway
