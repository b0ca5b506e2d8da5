#pragma once

#include <string>
#include <vector>

#include "tools/kelmctl/ConfigFile.h"

namespace kelm::ctl {

// A key with the value that the service uses.
struct ConfigValue {
    std::string key;  // as "scheduler_config[0].max_graph_per_device" for a device subclass
    ConfigKind kind;
    std::string value;
    std::string file;  // which it comes from; empty: the default
};

// All keys; the last file that has a usable value counts. Subclasses are those of the files, and 0.
std::vector<ConfigValue> readConfigValues(const std::vector<ConfigFile>& files);

}  // namespace kelm::ctl
