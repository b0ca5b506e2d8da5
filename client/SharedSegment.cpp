#include "client/SharedSegment.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "client/SegmentError.h"
#include "client/SegmentName.h"
#include "utils/FileRights.h"
#include "utils/UniqueFd.h"

namespace kelm::client {

namespace {

constexpr int kNameAttempts = 8;

// Opened anew, since segments that are kept mapped keep no descriptor.
UniqueFd openNamed(const std::string& name) {
    return UniqueFd(::shm_open(name.c_str(), O_RDWR, 0));
}

// Memory that is only promised would kill the process at its first write when there is none left.
bool allocate(int fd, size_t size) {
    do {
        errno = ::posix_fallocate(fd, 0, static_cast<off_t>(size));
    } while (errno == EINTR);
    return errno == 0;
}

}  // namespace

Result<std::unique_ptr<SharedSegment>> SharedSegment::create(size_t size, const std::string& role) {
    // Made before the segment that a failure destroys, whose end changes errno.
    const auto failed = [&] { return segmentError(errno, size, role); };
    for (int attempt = 1;; ++attempt) {
        const std::string name = SegmentName::make();
        const UniqueFd fd(::shm_open(name.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600));
        if (!fd && errno == EEXIST && attempt < kNameAttempts) continue;
        if (!fd) return failed();
        auto segment = std::unique_ptr<SharedSegment>(new SharedSegment(name, size));
        if (!allocate(fd.get(), size)) return failed();
        void* data = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0);
        if (data == MAP_FAILED) return failed();
        segment->m_data = data;
        return segment;
    }
}

SharedSegment::~SharedSegment() {
    if (m_data != nullptr) ::munmap(m_data, m_size);
    ::shm_unlink(m_name.c_str());
}

int SharedSegment::letUserIn(uid_t user) const {
    const UniqueFd fd = openNamed(m_name);
    return fd && FileRights::grant(fd.get(), user) ? 0 : errno;
}

// The group first: the mode is of no use to the members of another one.
int SharedSegment::letGroupIn(gid_t group) const {
    const UniqueFd fd = openNamed(m_name);
    const bool done = fd && ::fchown(fd.get(), static_cast<uid_t>(-1), group) == 0 &&
                      ::fchmod(fd.get(), 0660) == 0;
    return done ? 0 : errno;
}

}  // namespace kelm::client
