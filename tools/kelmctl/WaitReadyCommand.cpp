#include "tools/kelmctl/WaitReadyCommand.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <chrono>
#include <iostream>
#include <string>
#include <thread>

#include "tools/kelmctl/UsageError.h"
#include "utils/RunPaths.h"
#include "utils/UniqueFd.h"

namespace kelm::ctl {

namespace {

constexpr std::chrono::milliseconds kPoll(20);
constexpr double kMostSeconds = 1e6;

// Tried as a shared lock, so that two that wait never take each other for the service.
bool isLocked(const std::string& path) {
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return file && ::flock(file.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

}  // namespace

int runWaitReady(double timeoutSeconds) {
    if (!(timeoutSeconds >= 0.0 && timeoutSeconds <= kMostSeconds)) {
        throw UsageError("a time-out is 0 to 1000000 seconds");
    }
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::duration<double>(timeoutSeconds);
    while (!isLocked(RunPaths::readyMutex())) {
        if (std::chrono::steady_clock::now() >= deadline) {
            std::cerr << "kelmctl: the service is not ready: nobody holds "
                      << RunPaths::readyMutex() << "\n";
            return 1;
        }
        // Looked at again and again: nothing tells of a lock that another process takes.
        std::this_thread::sleep_for(kPoll);
    }
    return 0;
}

}  // namespace kelm::ctl
