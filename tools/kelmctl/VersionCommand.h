#pragma once

#include <string>

namespace kelm::ctl {

// The versions of the tool, of the library and of the protocol that they speak, a line each. The
// service tells none.
std::string versionText();

}  // namespace kelm::ctl
