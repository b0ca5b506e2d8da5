#pragma once

#include <cstddef>
#include <string>

#include "tools/kelmctl/StatusSource.h"

namespace kelm::ctl {

// The status of the service as tables for people; names are made safe for a terminal, which shows
// UTF-8 or not, and are cut as far as lines of `columns` need it.
std::string statusTable(const StatusLook& look, bool utf8, size_t columns);

}  // namespace kelm::ctl
