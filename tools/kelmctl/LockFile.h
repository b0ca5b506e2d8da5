#pragma once

#include <string>

namespace kelm::ctl {

enum class LockState {
    kFree,
    kHeld,
    kBarred,  // this user may not look
};

// Whether a process holds the lock of a file; one that is not there is free.
LockState lookAtLock(const std::string& path);

}  // namespace kelm::ctl
