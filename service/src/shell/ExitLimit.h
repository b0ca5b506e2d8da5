#pragma once

#include <chrono>

namespace kelm {

// The end of the process is bounded: a device call that never returns, or a reader of the log that
// stands still, must not keep a service that was told to end.
class ExitLimit {
 public:
    // Once the time is up the process leaves as by leave(). The first call counts; there is no way
    // back.
    static void start(std::chrono::milliseconds limit, int status);
    // Leaves at once with a line in the log: nothing is waited for, no static object destroyed.
    [[noreturn]] static void leave(int status);
};

}  // namespace kelm
