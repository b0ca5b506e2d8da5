#include <unistd.h>

#include <cstdlib>

#include "utils/DaemonHelper.h"
#include "utils/Log.h"

namespace kelm {

void DaemonHelper::createDaemon(const std::list<std::string>& args) {
    if (args.empty()) {
        LOG_ERROR("Error: empty argument vector as input");
        return;
    }
    if (::access(args.front().c_str(), X_OK) != 0) {
        LOG_ERROR("Error: Daemon file %s has no execute permission.", args.front());
        return;
    }
    // The shell puts the child into the background, so that this call returns at once.
    std::string line;
    for (const std::string& arg : args) line += arg + " ";
    line += "&";
    LOG_DEBUG("system(%s)", line);
    // The shell's own status says nothing about the child behind the "&".
    [[maybe_unused]] const int status = std::system(line.c_str());
}

}  // namespace kelm
