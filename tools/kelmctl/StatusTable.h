#pragma once

#include <chrono>
#include <string>

#include "client/Status.h"

namespace kelm::ctl {

// The status of the service as tables for people; names are made safe for a terminal, which shows
// UTF-8 or not.
std::string statusTable(const client::ServiceStatus& status, bool utf8);
// The same for programs: one object in one line, printable ASCII.
std::string statusJson(const client::ServiceStatus& status,
                       std::chrono::system_clock::time_point now);

}  // namespace kelm::ctl
