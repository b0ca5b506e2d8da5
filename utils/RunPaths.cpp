#include "utils/RunPaths.h"

#include <cstdlib>

namespace kelm {

// The variable lets several services run beside each other, each with files of its own.
std::string RunPaths::directory() {
    const char* directory = std::getenv("KELM_RUN_DIR");
    return directory != nullptr && *directory != '\0' ? directory : KELM_RUN_DIR;
}

std::string RunPaths::serviceSocket() { return directory() + "/kelm_service.sock"; }
std::string RunPaths::snapshotSocket() { return directory() + "/kelm_snapshot.sock"; }
std::string RunPaths::eventsSocket() { return directory() + "/kelm_events.sock"; }
std::string RunPaths::aliveMutex() { return directory() + "/kelm_service_alive.mutex"; }
std::string RunPaths::readyMutex() { return directory() + "/kelm_service_ready.mutex"; }
std::string RunPaths::startExitMutex() { return directory() + "/kelm_start_exit.mutex"; }

std::string RunPaths::autobootAliveMutex() { return directory() + "/kelm_autoboot_alive.mutex"; }
std::string RunPaths::autobootReadyMutex() { return directory() + "/kelm_autoboot_ready.mutex"; }
std::string RunPaths::autobootStartExitMutex() {
    return directory() + "/kelm_autoboot_start_exit.mutex";
}

}  // namespace kelm
