#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace kelm::ctl {

// The value as printable ASCII, whatever bytes its texts hold: names come from clients. An
// indentation below 0 gives one line.
std::string toJsonText(const nlohmann::json& value, int indentation = -1);
// A number for JSON, which knows no infinity, with three decimals.
double toJsonNumber(double value);

}  // namespace kelm::ctl
