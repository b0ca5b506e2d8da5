#include "shell/ExitLimit.h"

#include <unistd.h>

#include <atomic>
#include <iostream>
#include <memory>
#include <thread>

#include "utils/Log.h"
#include "utils/Semaphore.h"

namespace kelm {

void ExitLimit::start(std::chrono::milliseconds limit, int status) {
    static std::atomic_flag started;  // atomic: the signal's thread and the main thread may race
    if (started.test_and_set()) return;
    std::thread([limit, status] {
        std::this_thread::sleep_for(limit);
        leave(status);
    }).detach();
}

// Without destructors and handlers: threads that still run would meet objects that are destroyed.
void ExitLimit::leave(int status) {
    constexpr long kLogMilliseconds = 500;
    // By a thread of its own: the log's mutex may be held by what stands still.
    const auto written = std::make_shared<Semaphore>(0, 0);
    std::thread([written] {
        LOG_ERROR("Error: the service did not end in time, leave without waiting");
        std::cout.flush();
        written->post();
    }).detach();
    (void)written->waitFor(kLogMilliseconds);  // leaving is what matters
    ::_exit(status);
}

}  // namespace kelm
