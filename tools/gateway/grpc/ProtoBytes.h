#pragma once

#include <grpcpp/support/byte_buffer.h>
#include <grpcpp/support/proto_buffer_reader.h>
#include <grpcpp/support/slice.h>

#include <string>

#include "tools/gateway/Failure.h"

namespace kelm::gateway {

// Throws a Failure if the bytes are no such message.
template <class Message>
Message parseProto(grpc::ByteBuffer& bytes) {
    Message message;
    grpc::ProtoBufferReader reader(&bytes);
    if (!reader.status().ok() || !message.ParseFromZeroCopyStream(&reader)) {
        throw Failure(Cause::kInvalid, "the message is no " + message.GetDescriptor()->name());
    }
    return message;
}

template <class Message>
grpc::ByteBuffer toBytes(const Message& message) {
    const grpc::Slice slice(message.SerializeAsString());
    return {&slice, 1};
}

}  // namespace kelm::gateway
