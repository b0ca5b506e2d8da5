#pragma once

#include <list>
#include <string>

namespace kelm {

// Runs this program again in the background.
class DaemonHelper {
 public:
    // Starts the arguments, the first being the program's path, as a background child of a shell
    // and returns at once, whatever becomes of the child. An empty list and a path that cannot be
    // executed are logged.
    static void createDaemon(const std::list<std::string>& args);
    // Has no effect; kept for callers that detach by themselves.
    static void daemonlize(bool) {}
};

}  // namespace kelm
