#include "shell/ExitLimit.h"

#include <unistd.h>

#include <atomic>
#include <iostream>
#include <memory>
#include <thread>

#include "utils/Log.h"
#include "utils/Semaphore.h"

namespace kelm {

namespace {

// The line is written by a thread of its own: the log's mutex may be held by what stands still.
void logWithin(long milliseconds) {
    const auto written = std::make_shared<Semaphore>(0, 0);
    std::thread([written] {
        LOG_ERROR("Error: the service did not end in time, leave without waiting");
        std::cout.flush();
        written->post();
    }).detach();
    (void)written->waitFor(milliseconds);  // leaving is what matters
}

}  // namespace

void ExitLimit::start(std::chrono::milliseconds limit, int status) {
    static std::atomic_flag started;  // atomic: the signal's thread and the main thread may race
    if (started.test_and_set()) return;
    std::thread([limit, status] {
        constexpr long kLogMilliseconds = 500;
        std::this_thread::sleep_for(limit);
        logWithin(kLogMilliseconds);
        ::_exit(status);
    }).detach();
}

}  // namespace kelm
