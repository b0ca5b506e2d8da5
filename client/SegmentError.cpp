#include "client/SegmentError.h"

#include <sys/statvfs.h>

#include <cerrno>
#include <cstring>

#include "client/SegmentName.h"
#include "client/SystemError.h"
#include "client/UserGroups.h"
#include "utils/StringHelper.h"

namespace kelm::client {

namespace {

constexpr const char* kDirectory = SegmentName::kDirectory;

std::string amount(uint64_t bytes) {
    constexpr uint64_t kMegabyte = 1 << 20;
    if (bytes < kMegabyte) return std::to_string(bytes) + " bytes";
    return StringHelper::format("%.1f MB", static_cast<double>(bytes) / kMegabyte);
}

// Full of bytes, or of files, which a tmpfs counts by themselves.
std::string noSpace(size_t size) {
    const std::string at = kDirectory;
    struct statvfs info {};
    if (::statvfs(kDirectory, &info) != 0) return "mount a larger tmpfs at " + at;
    const bool isOutOfFiles = info.f_files != 0 && info.f_favail == 0;
    const uint64_t total = uint64_t{info.f_blocks} * info.f_frsize;
    const std::string state = isOutOfFiles
                                  ? "takes no further file"
                                  : "has " + amount(uint64_t{info.f_bavail} * info.f_frsize) +
                                        " of " + amount(total) + " left";
    const std::string larger = isOutOfFiles
                                   ? "nr_inodes=" + std::to_string(2 * info.f_files)
                                   : "size=" + std::to_string(((total + size) >> 20) + 1) + "M";
    return at + " " + state +
           "; make fewer or smaller slots, remove what programs have left there (see kelmctl "
           "doctor), or make it larger: mount -o remount," +
           larger + " " + at + ", for a container --shm-size";
}

std::string cause(int number, size_t size) {
    const std::string text = std::strerror(number);
    const std::string at = kDirectory;
    switch (number) {
        case ENOSPC:
            return text + "; " + noSpace(size);
        case EACCES:
        case EPERM:
        case EROFS:
            return text + "; user " + UserGroups::ofThisProcess().user + " may make no files in " +
                   at + "; run as root: chmod 1777 " + at;
        case ENOENT:
            return text + "; mount a tmpfs at " + at;
        case EFBIG:
        case EINVAL:
        case EOVERFLOW:
            return text + "; no file may be that large; check the sizes of the pool and ulimit -f";
        default:
            return describeSystemError(number);
    }
}

}  // namespace

Error segmentError(int number, size_t size, const std::string& role) {
    return {ErrorKind::kSystem, 0,
            "making " + amount(size) + " of shared memory for the " + role +
                " failed: " + cause(number, size)};
}

}  // namespace kelm::client
