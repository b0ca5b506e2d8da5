#include "tools/kelmctl/StatusCommand.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <iostream>
#include <memory>
#include <stdexcept>

#include "client/Client.h"
#include "tools/kelmctl/Interruption.h"
#include "tools/kelmctl/SafeText.h"
#include "tools/kelmctl/StatusReport.h"
#include "tools/kelmctl/UsageError.h"

namespace kelm::ctl {

namespace {

constexpr double kLeastWatch = 0.1;
constexpr double kMostWatch = 86400.0;

// Flushed each time: a reader behind a pipe waits for whole answers. False when that reader has
// left.
bool print(const client::ServiceStatus& status, bool json, bool utf8) {
    std::cout << (json ? statusJson(status, std::chrono::system_clock::now()) + "\n"
                       : statusTable(status, utf8))
              << std::flush;
    if (std::cout) return true;
    if (errno == EPIPE) return false;
    throw std::runtime_error("cannot write the status");
}

int watch(const StatusOptions& options, Interruption& interruption) {
    const bool utf8 = useTerminalLocale();
    const std::shared_ptr<client::Client> service = take(client::Client::connect());
    require(service->registerClient("kelmctl"));
    interruption.setService(service);
    auto next = std::chrono::steady_clock::now();
    while (print(take(service->queryStatus()), options.json, utf8)) {
        if (!options.watch) {
            require(service->unregister());
            return 0;
        }
        // From one date to the next, so that the time of the query does not add up.
        next += std::chrono::duration_cast<std::chrono::nanoseconds>(
            std::chrono::duration<double>(*options.watch));
        if (!interruption.sleepUntil(next)) return 128 + interruption.signal();
        if (!options.json) std::cout << "\n";
    }
    return 128 + SIGPIPE;
}

}  // namespace

int runStatus(const StatusOptions& options) {
    if (options.watch && !(*options.watch >= kLeastWatch && *options.watch <= kMostWatch)) {
        throw UsageError("watch at intervals of 0.1 to 86400 seconds");
    }
    // A reader that leaves, as `head` does, is to end the watch and not the process.
    (void)std::signal(SIGPIPE, SIG_IGN);
    Interruption interruption;
    return interruption.run([&] { return watch(options, interruption); });
}

}  // namespace kelm::ctl
