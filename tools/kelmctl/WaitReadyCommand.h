#pragma once

namespace kelm::ctl {

// Waits until the service takes clients: its ready lock is held. Exit status 0, or 1 when the time
// is up first.
int runWaitReady(double timeoutSeconds);

}  // namespace kelm::ctl
