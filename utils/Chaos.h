#pragma once

#ifdef KELM_CHAOS
#include <sched.h>
#include <unistd.h>

#include <functional>
#include <random>
#include <thread>
#endif

namespace kelm {

// Where the threads of a pool change hands. In builds with KELM_CHAOS, for tests, the thread is
// held up there now and then, so that others overtake it; otherwise nothing happens.
inline void mayBeHeldUp() {
#ifdef KELM_CHAOS
    static thread_local std::minstd_rand random(static_cast<unsigned>(
        std::hash<std::thread::id>()(std::this_thread::get_id()) ^ std::random_device()()));
    const auto draw = random() % 64;
    if (draw == 0) ::usleep(static_cast<useconds_t>(random() % 300));
    if (draw < 8) ::sched_yield();
#endif
}

}  // namespace kelm
