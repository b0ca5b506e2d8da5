#pragma once

#include <chrono>
#include <string>

#include "tools/kelmctl/StatusSource.h"

namespace kelm::ctl {

// The status of the service for programs: one object in one line, printable ASCII; its members are
// described in docs/kelmctl.md.
std::string statusJson(const StatusLook& look, std::chrono::system_clock::time_point now);
// The same when there is no service.
std::string downJson(const std::string& why, std::chrono::system_clock::time_point now);

}  // namespace kelm::ctl
