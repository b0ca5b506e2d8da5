#pragma once

#include <string>

namespace kelm::client {

// The system's words for an errno and, after a semicolon, what to do about it.
std::string describeSystemError(int number);

}  // namespace kelm::client
