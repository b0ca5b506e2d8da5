#pragma once

#include <sys/types.h>

#include <string>

namespace kelm::ctl {

enum class LockState {
    kFree,
    kHeld,
    kBarred,  // this user may not look
};

// Whether a process holds the lock of a file; one that is not there is free.
LockState lookAtLock(const std::string& path);
// The process that holds the lock of a file, as the kernel lists it; 0 if nobody does, -1 for a
// process that cannot be seen from here.
pid_t findLockHolder(const std::string& path);

}  // namespace kelm::ctl
