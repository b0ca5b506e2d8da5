#include "tools/kelmctl/LockFile.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>

#include "utils/UniqueFd.h"

namespace kelm::ctl {

// Tried as a shared lock, so that two that look never take each other for the service.
LockState lookAtLock(const std::string& path) {
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) return errno == EACCES ? LockState::kBarred : LockState::kFree;
    const bool isHeld = ::flock(file.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    return isHeld ? LockState::kHeld : LockState::kFree;
}

}  // namespace kelm::ctl
