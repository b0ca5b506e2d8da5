#include "tools/kelmctl/WaitReadyCommand.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>

#include "tools/kelmctl/Interruption.h"
#include "tools/kelmctl/LockFile.h"
#include "tools/kelmctl/StatusSource.h"
#include "tools/kelmctl/Timeout.h"
#include "utils/RunPaths.h"

namespace kelm::ctl {

namespace {

// Nothing tells of a lock that another process takes, or of a device that comes.
constexpr std::chrono::milliseconds kLockPeriod{20};
constexpr std::chrono::milliseconds kLookPeriod{100};
// The last look, too, is to tell what is missing and not that it had no time.
constexpr client::Deadline kLeastLook{500};

// The whole name, or what stands behind its last slash.
bool isNamed(const std::string& graph, const std::string& wanted) {
    return graph == wanted || graph.ends_with("/" + wanted);
}

bool isHeld(const StatusLook& look, const std::string& graph) {
    const auto holds = [&](const client::DeviceStatus& device) {
        return isNamed(device.graph, graph);
    };
    if (std::ranges::any_of(look.status.devices, holds)) return true;
    // A device may hold others beside the one that its status names.
    return look.snapshot && std::ranges::any_of(look.snapshot->graphs, [&](const auto& row) {
               return row.runningDevices > 0 && isNamed(row.name, graph);
           });
}

std::string namesOf(const std::vector<client::GraphStatus>& graphs) {
    std::string names;
    for (const client::GraphStatus& graph : graphs) {
        names += (names.empty() ? "" : ", ") + graph.name;
    }
    return names.empty() ? "none" : names;
}

// Empty when nothing is missing.
std::string findMissing(const WaitReadyOptions& options, const client::Result<StatusLook>& look) {
    if (!look) return look.error().text();
    const client::ServiceStatus& status = look.value().status;
    std::string missing;
    if (status.deviceCount < options.devices) {
        missing = fmt::format("{} of {} devices are there (plug in more, or ask for fewer)",
                              status.deviceCount, options.devices);
    }
    if (!options.graph.empty() && !isHeld(look.value(), options.graph)) {
        missing += fmt::format(
            "{}no device holds the graph {} (of the service's: {}); hand it over, as kelmctl load "
            "does",
            missing.empty() ? "" : " and ", options.graph, namesOf(status.graphs));
    }
    return missing;
}

// Whether the service takes clients. Waiting gives a user no rights: their lack is thrown at once.
bool isReady() {
    const LockState state = lookAtLock(RunPaths::readyMutex());
    if (state == LockState::kBarred) require(client::Client::connect().error());
    return state != LockState::kFree;
}

std::string wait(const WaitReadyOptions& options, const Timeout& timeout,
                 Interruption& interruption) {
    const bool looks = options.devices > 0 || !options.graph.empty();
    StatusSource source(interruption);
    std::string missing;
    do {
        const bool ready = isReady();
        if (!ready) {
            missing = "nobody holds " + RunPaths::readyMutex() +
                      "; start kelmdaemon, or set KELM_RUN_DIR to the directory that it was "
                      "started with";
        } else {
            missing = looks
                          ? findMissing(options, source.look(std::max(timeout.left(), kLeastLook)))
                          : "";
        }
        if (missing.empty()) break;
        const auto next = Timeout::Clock::now() + (ready ? kLookPeriod : kLockPeriod);
        if (!interruption.sleepUntil(std::min(next, timeout.end()))) {
            throw std::runtime_error(missing);
        }
    } while (!timeout.isOver());
    (void)source.leave();  // a service that hangs up now was ready
    return missing;
}

}  // namespace

int runWaitReady(const WaitReadyOptions& options) {
    const Timeout timeout(options.timeout);
    Interruption interruption;
    return interruption.run([&] {
        const std::string missing = wait(options, timeout, interruption);
        if (missing.empty()) return 0;
        throw std::runtime_error(fmt::format("not ready after {} s: {}", options.timeout, missing));
    });
}

}  // namespace kelm::ctl
