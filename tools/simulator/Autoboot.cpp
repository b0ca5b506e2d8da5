// The boot tool of the simulator. Simulated accelerators need no firmware, so it only takes its two
// lock files and waits; it ends when its directory, KELM_SIM_DIR, is removed. The environment tells
// it to be slow, in milliseconds: KELM_BOOT_ALIVE before the alive lock, KELM_BOOT_READY from there
// to the ready lock; and to crash: KELM_BOOT_CRASH after ready, unless it was started anew.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tools/simulator/WatchedFile.h"
#include "utils/GlobalMutex.h"
#include "utils/RunPaths.h"

namespace {

using Millis = std::chrono::milliseconds;

constexpr Millis kPoll{100};
constexpr int kCrashed = 3;

Millis setting(const char* name) {
    const char* value = std::getenv(name);
    return Millis(value != nullptr ? std::atol(value) : 0);
}

// The tool outlives the service, and must not keep the service's terminal or pipes open.
void leaveOutput() {
    const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) ::dup2(null, fd);
}

// Tests remove the directory when they end, and no tool is left behind.
void waitForTheEnd(const std::string& directory) {
    while (directory.empty() || std::filesystem::exists(directory)) {
        std::this_thread::sleep_for(kPoll);
    }
}

}  // namespace

int main(int argc, char** argv) {
    using namespace kelm;
    leaveOutput();
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    std::string event = "boot";
    for (const std::string& argument : arguments) event += " " + argument;
    // Before the locks: a test sees a start that gets no further, too.
    simulator::tellEvent(event);
    std::this_thread::sleep_for(setting("KELM_BOOT_ALIVE"));
    GlobalMutex alive(RunPaths::autobootAliveMutex(), true);
    alive.lock();
    std::this_thread::sleep_for(setting("KELM_BOOT_READY"));
    GlobalMutex ready(RunPaths::autobootReadyMutex(), true);
    ready.lock();
    const bool recovered = std::ranges::find(arguments, "--recover") != arguments.end();
    if (const Millis life = setting("KELM_BOOT_CRASH"); life.count() > 0 && !recovered) {
        std::this_thread::sleep_for(life);
        std::_Exit(kCrashed);
    }
    waitForTheEnd(simulator::simulatorFile(""));
}
