#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <span>
#include <string>

#include "tools/gateway/ModelDescription.h"

namespace kelm::gateway {

// The elements of a tensor as bytes, from an array that is flat or nested as the shape. Throws a
// Failure: an element is of another kind or out of range, the shape does not fit, it is raw only.
std::string readJsonTensor(const nlohmann::json& data, const std::string& name, Datatype type,
                           const Shape& shape);

// Appends the elements as a flat array; NaN and infinity, which JSON does not have, as null.
void appendJsonTensor(std::string& text, Datatype type, std::span<const std::byte> bytes);

}  // namespace kelm::gateway
