#include "tools/kelmctl/StatusCommand.h"

#include <chrono>
#include <iostream>
#include <stdexcept>
#include <thread>

#include "client/Client.h"
#include "tools/kelmctl/SafeText.h"
#include "tools/kelmctl/StatusReport.h"

namespace kelm::ctl {

namespace {

constexpr double kLeastWatch = 0.1;
constexpr double kMostWatch = 86400.0;

// Flushed each time: a reader behind a pipe waits for whole answers.
void print(const client::ServiceStatus& status, bool json, bool utf8) {
    std::cout << (json ? statusJson(status, std::chrono::system_clock::now()) + "\n"
                       : statusTable(status, utf8))
              << std::flush;
    if (!std::cout) throw std::runtime_error("cannot write the status");
}

}  // namespace

int runStatus(const StatusOptions& options) {
    if (options.watch && !(*options.watch >= kLeastWatch && *options.watch <= kMostWatch)) {
        throw std::invalid_argument("watch at intervals of 0.1 to 86400 seconds");
    }
    const bool utf8 = useTerminalLocale();
    const auto service = take(client::Client::connect());
    require(service->registerClient("kelmctl"));
    print(take(service->queryStatus()), options.json, utf8);
    auto next = std::chrono::steady_clock::now();
    while (options.watch) {
        // From one date to the next, so that the time of the query does not add up.
        next += std::chrono::duration_cast<std::chrono::nanoseconds>(
            std::chrono::duration<double>(*options.watch));
        std::this_thread::sleep_until(next);
        const client::ServiceStatus status = take(service->queryStatus());
        if (!options.json) std::cout << "\n";
        print(status, options.json, utf8);
    }
    require(service->unregister());
    return 0;
}

}  // namespace kelm::ctl
