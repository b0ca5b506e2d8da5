#pragma once

#include <ctime>

namespace kelm {

// Seconds of processor time of this thread alone, so that a busy machine does not count.
inline double threadSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

}  // namespace kelm
