#pragma once

namespace kelm::ctl {

// Tells the service to end, with the signal that it ends in order by, and waits until the process
// has ended and its lock is free, for so many seconds. Exit status 0, or 1 with the reason why it
// still runs.
int runStop(double timeoutSeconds);

}  // namespace kelm::ctl
