// libion.so.0 over anonymous files: a buffer is one, and what is shared is a descriptor of it.

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <utility>

#include "service/src/platform/linux/IonApi.h"
#include "tools/simulator/CallLog.h"
#include "tools/simulator/Orders.h"
#include "utils/Mutex.h"
#include "utils/UniqueFd.h"

using namespace kelm;

namespace {

constexpr int kFailure = -1;

int fail(int error) {
    errno = error;
    return kFailure;
}

// A status by order, with an error number that fits any of them.
int orderedStatus(const char* function) {
    simulator::CallLog::note(function);
    const int status = simulator::Orders::instance().apply("-", function);
    if (status != 0) errno = EIO;
    return status;
}

// Not below 3: 0 counts as no descriptor in many places.
UniqueFd duplicate(int fd) { return UniqueFd(::fcntl(fd, F_DUPFD_CLOEXEC, 3)); }

// A buffer in use, and the ION descriptor that it came by.
struct Buffer : simulator::CountedHandle {
    Buffer(int ion, UniqueFd memory) : ionFd(ion), fd(std::move(memory)) {}

    const int ionFd;
    const UniqueFd fd;
};

// The buffers that are in use, by handle.
class Buffers {
 public:
    // Never destroyed: threads may free buffers until the process has ended.
    static Buffers& instance() {
        static Buffers& buffers = *new Buffers;
        return buffers;
    }

    int add(int ionFd, UniqueFd buffer, int* handle) {
        MutexLock lock(m_mutex);
        *handle = m_next++;
        m_buffers.try_emplace(*handle, ionFd, std::move(buffer));
        return 0;
    }
    // None if there is no such handle.
    UniqueFd share(int ionFd, int handle) {
        MutexLock lock(m_mutex);
        const auto found = m_buffers.find(handle);
        const bool known = found != m_buffers.end() && found->second.ionFd == ionFd;
        return known ? duplicate(found->second.fd.get()) : UniqueFd();
    }
    bool remove(int ionFd, int handle) {
        MutexLock lock(m_mutex);
        const auto found = m_buffers.find(handle);
        if (found == m_buffers.end() || found->second.ionFd != ionFd) return false;
        m_buffers.erase(found);
        return true;
    }
    void removeAll(int ionFd) {
        MutexLock lock(m_mutex);
        std::erase_if(m_buffers,
                      [ionFd](const auto& entry) { return entry.second.ionFd == ionFd; });
    }

 private:
    Mutex m_mutex;
    int m_next GUARDED_BY(m_mutex) = 1;
    std::map<int, Buffer> m_buffers GUARDED_BY(m_mutex);
};

}  // namespace

int ion_open() {
    if (const int status = orderedStatus(__func__)) return status;
    return ::memfd_create("ion", MFD_CLOEXEC);
}

// As the kernel would do: buffers end with the descriptor that they came by.
int ion_close(int fd) {
    simulator::CallLog::note(__func__);
    Buffers::instance().removeAll(fd);
    return ::close(fd);
}

int ion_alloc_only(int fd, unsigned long size, unsigned long, unsigned int, unsigned int,
                   int* handle, ...) {
    if (const int status = orderedStatus(__func__)) return status;
    if (size == 0 || handle == nullptr) return fail(EINVAL);
    UniqueFd buffer(::memfd_create("ion-buffer", MFD_CLOEXEC));
    if (!buffer || ::ftruncate(buffer.get(), static_cast<off_t>(size)) != 0) return kFailure;
    return Buffers::instance().add(fd, std::move(buffer), handle);
}

int ion_share(int fd, int handle, int* shareFd) {
    if (const int status = orderedStatus(__func__)) return status;
    UniqueFd shared = Buffers::instance().share(fd, handle);
    if (!shared || shareFd == nullptr) return fail(EINVAL);
    *shareFd = shared.release();
    return 0;
}

// A file without bytes cannot be mapped.
int ion_import(int fd, int shareFd, int* handle) {
    if (const int status = orderedStatus(__func__)) return status;
    struct stat status {};
    if (handle == nullptr || ::fstat(shareFd, &status) != 0) return fail(EBADF);
    if (!S_ISREG(status.st_mode) || status.st_size == 0) return fail(EINVAL);
    UniqueFd buffer = duplicate(shareFd);
    return buffer ? Buffers::instance().add(fd, std::move(buffer), handle) : kFailure;
}

int ion_get_info(int fd, int handle, unsigned int* a, unsigned int* b, unsigned long* size) {
    if (const int status = orderedStatus(__func__)) return status;
    struct stat status {};
    const UniqueFd buffer = Buffers::instance().share(fd, handle);
    if (!buffer || ::fstat(buffer.get(), &status) != 0 || size == nullptr) return fail(EINVAL);
    if (a != nullptr) *a = 0;
    if (b != nullptr) *b = 0;
    *size = static_cast<unsigned long>(status.st_size);
    return 0;
}

// The buffer is freed also when that fails, since no caller tries again.
int ion_free(int fd, int handle) {
    const bool known = Buffers::instance().remove(fd, handle);
    if (const int status = orderedStatus(__func__)) return status;
    return known ? 0 : fail(EINVAL);
}
