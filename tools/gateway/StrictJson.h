#pragma once

#include <nlohmann/json.hpp>
#include <string_view>

namespace kelm::gateway {

// The value of a text from outside. Throws a Failure with the reason: no JSON, containers that lie
// in each other too deep, a name that an object has twice.
nlohmann::json parseStrictJson(std::string_view text);

}  // namespace kelm::gateway
