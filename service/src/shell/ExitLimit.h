#pragma once

#include <chrono>

namespace kelm {

// The end of the process is bounded: a device call that never returns, or a reader of the log that
// stands still, must not keep a service that was told to go.
class ExitLimit {
 public:
    // Once the time is up the process leaves at once with the status and a line in the log. The
    // first call counts; there is no way back.
    static void start(std::chrono::milliseconds limit, int status);
};

}  // namespace kelm
