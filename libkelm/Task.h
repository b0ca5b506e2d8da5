#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include "client/PreparedInfer.h"
#include "kelm/kelm.h"

namespace kelm::lib {

class GraphQueue;

constexpr uint32_t kHighestPriority = 15;

// A task from its submission to its end.
struct Task {
    using Clock = std::chrono::steady_clock;

    client::PreparedInfer infer;
    uint32_t priority = 0;
    uint64_t cookie = 0;
    kelm_done_fn done = nullptr;  // null: the end is not told
    void* user = nullptr;
    bool endsInPlace = false;  // `done` is the library's own, and never waits for a dispatch
    Clock::time_point deadline;

    // Filled in by the queue.
    Clock::time_point submitted;
    Clock::time_point sent;
    uint64_t ticket = 0;
    uint64_t taskId = 0;                // the service's; 0: not known yet
    bool isTakenBack = false;           // by the queue, to be sent again
    uint64_t connection = 0;            // the one that it was sent on
    std::shared_ptr<GraphQueue> queue;  // stays while the task does
};

}  // namespace kelm::lib
