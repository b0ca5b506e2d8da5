#pragma once

#include <cstddef>
#include <span>
#include <string>

#include "tools/gateway/Datatype.h"
#include "tools/gateway/grpc/Protos.h"

namespace kelm::gateway {

// How many elements there are, in all fields.
size_t countContents(const inference::InferTensorContents& contents);

// The elements of a tensor as bytes. Throws a Failure: they are in the field of another type or out
// of range, or the type is raw only.
std::string readContents(const inference::InferTensorContents& contents, const std::string& name,
                         Datatype type);

// Appends the elements, of a type that is not raw only.
void appendContents(inference::InferTensorContents& contents, Datatype type,
                    std::span<const std::byte> bytes);

}  // namespace kelm::gateway
