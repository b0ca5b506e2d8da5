#include "tools/kelmctl/LockFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <fstream>
#include <sstream>

#include "utils/UniqueFd.h"

namespace kelm::ctl {

// Tried as a shared lock, so that two that look never take each other for the service.
LockState lookAtLock(const std::string& path) {
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) return errno == EACCES ? LockState::kBarred : LockState::kFree;
    const bool isHeld = ::flock(file.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    return isHeld ? LockState::kHeld : LockState::kFree;
}

// By the file's number alone: the device that the list names is another one where file systems lie
// over each other.
pid_t findLockHolder(const std::string& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) return 0;
    const std::string end = fmt::format(":{}", info.st_ino);
    std::ifstream locks("/proc/locks");
    for (std::string line; std::getline(locks, line);) {
        std::istringstream fields(line);
        std::string number, kind, mode, access, file;
        pid_t pid = 0;
        fields >> number >> kind >> mode >> access >> pid >> file;
        const bool isHeld = fields && kind == "FLOCK" && access == "WRITE" && file.ends_with(end);
        if (isHeld) return pid > 0 ? pid : -1;  // of another pid namespace
    }
    return 0;
}

}  // namespace kelm::ctl
