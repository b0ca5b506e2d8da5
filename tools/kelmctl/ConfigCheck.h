#pragma once

#include <vector>

#include "tools/kelmctl/ConfigFile.h"

namespace kelm::ctl {

// What in a file the service does not know, passes over, or takes for something else; in the order
// of the file.
std::vector<ConfigFinding> checkConfigFile(const ConfigFile& file);
// The same for files that the service reads one over the other, the last one counting most; what
// only shows when they are taken together comes last.
std::vector<ConfigFinding> checkConfigFiles(const std::vector<ConfigFile>& files);

}  // namespace kelm::ctl
