#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "utils/Log.h"
#include "utils/MappingGuard.h"
#include "utils/PeerCredentials.h"
#include "utils/ShareMemory.h"
#include "utils/TextHelper.h"
#include "utils/UniqueFd.h"

namespace kelm {

namespace {

constexpr mode_t kMode = 0666;

// If the object is shortened after this look, the guard of mappings keeps the process alive.
bool isLargeEnough(int fd, const char* name, unsigned long size) {
    struct stat status = {};
    if (::fstat(fd, &status) != 0) {
        LOG_ERROR("Error: fstat() failed: errno=%d (%s)\n", errno, std::strerror(errno));
        return false;
    }
    const auto actual = static_cast<uint64_t>(status.st_size);
    if (actual >= size) return true;
    LOG_ERROR("Error: share memory '%s' has %lu bytes, %lu are wanted", escapeControls(name),
              actual, size);
    return false;
}

bool isAllowed(const PeerCredentials& peer, FileRights::Access wanted, int fd, const char* name) {
    if (mayAccess(peer, fd, wanted)) return true;
    LOG_ERROR("Error: user %u does not own share memory '%s', and its mode does not let him %s it",
              peer.user, escapeControls(name), wanted == FileRights::READ ? "read" : "write");
    return false;
}

bool grow(int fd, unsigned long size) {
    if (::ftruncate(fd, static_cast<off_t>(size)) == 0) return true;
    LOG_ERROR("Error: ftruncate() failed: errno=%d (%s)\n", errno, std::strerror(errno));
    return false;
}

void* map(int fd, unsigned long size) {
    void* const data = MappingGuard::map(fd, size);
    if (data != nullptr) return data;
    LOG_ERROR("Error: mmap() failed: errno=%d (%s)\n", errno, std::strerror(errno));
    return nullptr;
}

// The mapping stays without the descriptor, so that tasks do not use up descriptors.
bool close(UniqueFd& fd) {
    if (::close(fd.release()) == 0) return true;
    LOG_ERROR("Error: close() failed: errno=%d (%s)\n", errno, std::strerror(errno));
    return false;
}

}  // namespace

ShareMemory::~ShareMemory() { reset(); }

bool ShareMemory::open(const char* name, unsigned long size, int oflag, const Check& check) {
    if (name == nullptr) {
        LOG_ERROR("Error: empty name for create share memory\n");
        return false;
    }
    reset();
    // Without O_NONBLOCK another process that has a lease on the object would hold this thread.
    UniqueFd fd(::shm_open(name, oflag | O_NONBLOCK, kMode));
    if (!fd) {
        LOG_ERROR("Error: shm_open() failed: errno=%d (%s)\n", errno, std::strerror(errno));
        return false;
    }
    const bool isNew = (oflag & O_CREAT) != 0;
    void* data = nullptr;
    if (check(fd.get())) data = map(fd.get(), size);
    if (data != nullptr && !close(fd)) {
        (void)MappingGuard::unmap(data, size);  // given up either way
        data = nullptr;
    }
    if (data == nullptr) {
        // An object that another process made keeps its name.
        if (isNew) (void)::shm_unlink(name);
        return false;
    }
    m_data = data;
    m_name = name;
    m_size = size;
    return true;
}

// Grown before it is mapped: a touch behind its end would raise SIGBUS.
void* ShareMemory::create(const char* name, unsigned long size) {
    const auto growNew = [size](int fd) { return grow(fd, size); };
    if (!open(name, size, O_CREAT | O_RDWR, growNew)) return nullptr;
    m_created = true;
    return m_data;
}

void* ShareMemory::open(const char* name, unsigned long size) {
    const auto check = [&](int fd) { return isLargeEnough(fd, name, size); };
    return open(name, size, O_RDWR, check) ? m_data : nullptr;
}

// Asked of the open object and not of its name, which may stand for another one by then.
void* ShareMemory::openFor(const PeerCredentials& peer, FileRights::Access wanted, const char* name,
                           unsigned long size) {
    const auto check = [&](int fd) {
        return isAllowed(peer, wanted, fd, name) && isLargeEnough(fd, name, size);
    };
    return open(name, size, O_RDWR, check) ? m_data : nullptr;
}

void ShareMemory::reset() {
    if (m_data == nullptr) return;
    if (!MappingGuard::unmap(m_data, m_size)) {
        LOG_ERROR("Error: munmap() failed: error=%d (%s)\n", errno, std::strerror(errno));
    }
    if (m_created && ::shm_unlink(m_name.c_str()) != 0) {
        LOG_ERROR("Error: shm_unlink() failed: error=%d (%s)\n", errno, std::strerror(errno));
    }
    m_created = false;
    m_data = nullptr;
    m_name.clear();
    m_size = 0;
}

}  // namespace kelm
