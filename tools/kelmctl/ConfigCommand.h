#pragma once

#include <string>
#include <vector>

#include "tools/kelmctl/ConfigFile.h"

namespace kelm::ctl {

struct ConfigOptions {
    std::vector<std::string> files;        // only these; none: those that the service would read
    std::vector<std::string> configFiles;  // as the service's --config-file
    bool origin = false;
    bool json = false;
};

// Prints one line a finding: file, line and column where they can be told, what is wrong and what
// mends it. Exit status 1 if there is one.
int runConfigCheck(const ConfigOptions& options);
// Prints every key with the value that the service would use.
int runConfigShow(const ConfigOptions& options);

// The files that the service would read and that are there, in its order; one that it would miss is
// among them. Throws with a text for the user where the service would not start.
std::vector<std::string> listConfigPaths(const std::vector<std::string>& configFiles);

// Reads them. What the service's reader logs about them is silenced, as it is told by the findings.
std::vector<ConfigFile> loadConfigFiles(const std::vector<std::string>& paths);

}  // namespace kelm::ctl
