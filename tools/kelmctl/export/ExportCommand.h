#pragma once

#include <string>
#include <vector>

namespace kelm::ctl {

struct ExportOptions {
    std::string listen = "127.0.0.1:10753";
    std::vector<std::string> probes;  // files of compiled graphs
    double probeInterval = 15.0;      // seconds
};

// Serves what the service tells over HTTP until a signal comes. 0.
int runExport(const ExportOptions& options);

}  // namespace kelm::ctl
