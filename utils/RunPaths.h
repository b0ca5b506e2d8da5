#pragma once

#include <string>

namespace kelm {

// Where the sockets and lock files lie: the directory that the environment variable KELM_RUN_DIR
// names, which lets two services run on one machine, or the build's: "/var/tmp", "/run/kelm" in
// packages. Service, client library and tools all ask here.
class RunPaths {
 public:
    static std::string directory();
    static std::string serviceSocket();
    static std::string snapshotSocket();
    static std::string eventsSocket();
    static std::string aliveMutex();
    static std::string readyMutex();
    static std::string startExitMutex();
    // Those of the boot tool.
    static std::string autobootAliveMutex();
    static std::string autobootReadyMutex();
    static std::string autobootStartExitMutex();
};

}  // namespace kelm
