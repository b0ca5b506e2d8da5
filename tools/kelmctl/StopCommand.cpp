#include "tools/kelmctl/StopCommand.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <string>

#include "client/Client.h"
#include "tools/kelmctl/Interruption.h"
#include "tools/kelmctl/LockFile.h"
#include "tools/kelmctl/Timeout.h"
#include "utils/RunPaths.h"
#include "utils/UniqueFd.h"

namespace kelm::ctl {

namespace {

constexpr std::chrono::milliseconds kPeriod{20};

// The service's process. The descriptor stands for it for good, where another one may get its id.
struct ServiceProcess {
    pid_t pid;
    UniqueFd fd;
};

// Never for a signal: 0 and below are groups, 1 is the machine's or container's own.
void checkPid(pid_t pid) {
    if (pid == 0) {
        throw std::runtime_error(
            "the service runs in another pid namespace; stop it there, or stop its container");
    }
    if (pid == 1 || pid == ::getpid()) {
        throw std::runtime_error(fmt::format(
            "process {} listens on the socket and must not be signaled; stop its container", pid));
    }
}

// Its answer to the registration proves that it had not ended when the descriptor was opened.
ServiceProcess findProcess(const Timeout& timeout, Interruption& interruption) {
    const std::shared_ptr<client::Client> service =
        take(client::Client::connect({}, timeout.left()));
    const pid_t pid = service->servicePid();
    checkPid(pid);
    ServiceProcess process{pid, UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)))};
    if (!process.fd) {
        throw std::runtime_error(
            fmt::format("cannot look at process {}: {}", pid, std::strerror(errno)));
    }
    interruption.setService(service);
    const client::Error error = service->registerClient("kelmctl", timeout.left());
    if (error.kind() == client::ErrorKind::kTimeout) {
        throw std::runtime_error(fmt::format(
            "the service, process {}, does not answer, and would not heed the signal; end it by "
            "force: kill -KILL {}",
            pid, pid));
    }
    require(error);
    require(service->unregister(timeout.left()));
    interruption.setService(nullptr);
    return process;
}

// False when the time is up first, or a signal comes.
template <class Condition>
bool waitUntil(const Condition& condition, const Timeout& timeout, Interruption& interruption) {
    while (!condition()) {
        if (timeout.isOver() || !interruption.sleepUntil(Timeout::Clock::now() + kPeriod)) {
            return false;
        }
    }
    return true;
}

// Before its ready lock is held the service may not heed the signal, and would end without order.
void tellToEnd(const ServiceProcess& process, const Timeout& timeout, Interruption& interruption) {
    const auto isReady = [] { return lookAtLock(RunPaths::readyMutex()) != LockState::kFree; };
    if (!waitUntil(isReady, timeout, interruption)) {
        throw std::runtime_error(
            fmt::format("the service, process {}, has not come to the end of its start; try again",
                        process.pid));
    }
    if (::syscall(SYS_pidfd_send_signal, process.fd.get(), SIGUSR1, nullptr, 0) == 0) return;
    if (errno == ESRCH) return;  // it has ended by itself
    throw std::runtime_error(
        fmt::format("this user may not signal the service, process {}: {}; run: sudo kill -USR1 {}",
                    process.pid, std::strerror(errno), process.pid));
}

void stop(const Timeout& timeout, Interruption& interruption) {
    const ServiceProcess process = findProcess(timeout, interruption);
    tellToEnd(process, timeout, interruption);
    const auto hasEnded = [&] {
        pollfd end{process.fd.get(), POLLIN, 0};
        return ::poll(&end, 1, 0) == 1;
    };
    if (!waitUntil(hasEnded, timeout, interruption)) {
        throw std::runtime_error(
            fmt::format("the service, process {}, has been told to end and still runs; see its "
                        "log, or end it by force: kill -KILL {}",
                        process.pid, process.pid));
    }
    const auto isFree = [] { return lookAtLock(RunPaths::aliveMutex()) != LockState::kHeld; };
    if (!waitUntil(isFree, timeout, interruption)) {
        throw std::runtime_error(
            fmt::format("process {} has ended, but another one holds {}: something has started "
                        "the service again; stop that first",
                        process.pid, RunPaths::aliveMutex()));
    }
    std::cout << "the service, process " << process.pid << ", has ended\n";
}

}  // namespace

int runStop(double timeoutSeconds) {
    const Timeout timeout(timeoutSeconds);
    Interruption interruption;
    return interruption.run([&] {
        stop(timeout, interruption);
        return 0;
    });
}

}  // namespace kelm::ctl
