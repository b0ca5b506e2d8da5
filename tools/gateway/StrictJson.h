#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string_view>
#include <vector>

namespace kelm::gateway {

// The value of a text from outside. Throws a Failure with the reason: no JSON, containers that lie
// in each other too deep, a name that an object has twice.
nlohmann::json parseStrictJson(std::string_view text);

// A shape. Throws a Failure, with the rule in words, where a dimension is not allowed.
std::vector<int64_t> readShape(const nlohmann::json& value, bool (*isAllowed)(int64_t dimension),
                               const char* rule);

}  // namespace kelm::gateway
