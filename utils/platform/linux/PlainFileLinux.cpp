#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "utils/PlainFile.h"

namespace kelm {

namespace {

// 0, or the reason why the file is not to be used.
int findFault(int fd, PlainFile::Owner owner) {
    struct stat info {};
    if (::fstat(fd, &info) != 0) return errno;
    if (!S_ISREG(info.st_mode)) return EINVAL;
    if (info.st_nlink != 1) return EMLINK;
    if (owner == PlainFile::Owner::THIS_USER && info.st_uid != ::geteuid()) return EPERM;
    return 0;
}

// Opens what is there before making anything: a file that is there must not be refused for being
// another user's where only its making is restricted, and one that is made must be new.
UniqueFd openOrMake(const char* path, int flags, mode_t mode) {
    constexpr int kAttempts = 3;  // others may make and remove the file meanwhile
    UniqueFd file;
    for (int i = 0; i < kAttempts && !file; ++i) {
        file.reset(::open(path, flags));
        if (file || errno != ENOENT) return file;
        file.reset(::open(path, flags | O_CREAT | O_EXCL, mode));
        if (!file && errno != EEXIST) return file;
    }
    return file;
}

}  // namespace

// Cut to no length only once the file is known to be the right one. Opened without waiting, since a
// pipe without a writer would hold the caller.
UniqueFd PlainFile::open(const char* path, int flags, mode_t mode, Owner owner) {
    const int safeFlags = (flags & ~(O_CREAT | O_TRUNC)) | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    UniqueFd file = openOrMake(path, safeFlags, mode);
    if (!file) return file;
    int fault = findFault(file.get(), owner);
    if (fault == 0 && (flags & O_TRUNC) != 0 && ::ftruncate(file.get(), 0) != 0) fault = errno;
    if (fault == 0) return file;
    file.reset();
    errno = fault;
    return file;
}

}  // namespace kelm
