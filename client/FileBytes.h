#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace kelm::client {

// All bytes of a file or pipe. Throws std::runtime_error with the system's reason when it cannot be
// read, or has more than the 4 GB that a request carries.
std::vector<std::byte> readFileBytes(const std::string& path);

}  // namespace kelm::client
