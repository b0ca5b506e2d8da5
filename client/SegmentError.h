#pragma once

#include <cstddef>
#include <string>

#include "client/Error.h"

namespace kelm::client {

// Why there is no shared memory of `size` bytes for the buffer called `role`, by the errno of the
// call that failed, and what to do about it. kSystem.
Error segmentError(int number, size_t size, const std::string& role);

}  // namespace kelm::client
