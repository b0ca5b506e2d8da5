#pragma once

#include <string>

#include "client/Error.h"

namespace kelm::client {

// Why no connection could be made to the socket at `path`, for the errno of connect(), and what
// mends it: kTimeout for EAGAIN, else kNotConnected.
Error connectError(const std::string& path, int code);

}  // namespace kelm::client
