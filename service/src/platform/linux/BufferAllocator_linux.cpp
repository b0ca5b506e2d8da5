#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/linux/IonLibrary.h"
#include "protocol/src/KelmMessage.h"
#include "records/BufferAllocator.h"
#include "utils/Log.h"
#include "utils/MappingGuard.h"
#include "utils/PeerDescriptor.h"
#include "utils/UniqueFd.h"

namespace kelm {

namespace {

// Memory comes from the ION heap of bit 4, without a wish for alignment or flags.
constexpr unsigned long kAlign = 0;
constexpr unsigned int kHeapMask = 0x10;
constexpr unsigned int kFlags = 0;

void fill(KelmBuffer& buffer, void* data, unsigned long size, int fd, int handle) {
    buffer.buffer = reinterpret_cast<uint64_t>(data);
    buffer.size = size;
    buffer.fd = fd;
    buffer.ionHandle = handle;
}

}  // namespace

// A handle of the ION device that is given back to it unless keep() is called.
class BufferAllocator::Handle {
 public:
    explicit Handle(const Ion& ion) : m_ion(ion) {}
    ~Handle() {
        if (number > 0) (void)m_ion.library->ion_free(m_ion.fd, number);
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    int keep() { return std::exchange(number, 0); }

    int number = 0;

 private:
    const Ion m_ion;
};

BufferAllocator::~BufferAllocator() {
    if (m_ion.fd < 0) return;
    (void)m_ion.library->ion_close(m_ion.fd);
    m_ion.fd = -1;  // free() still works for a task that ends later, but for the handle
}

// Tried again for each buffer until it succeeds: the device may come later than the service.
BufferAllocator::Ion BufferAllocator::openIon() {
    MutexLock lock(m_mutex);
    if (m_ion.fd >= 0) return m_ion;
    m_ion.library = IonLibrary::functions();
    if (m_ion.library == nullptr) return m_ion;
    m_ion.fd = m_ion.library->ion_open();
    if (m_ion.fd < 0) LOG_ERROR("Error: ion_open failed. errno = %d\n", errno);
    return m_ion;
}

// Without opening: a buffer with a handle was made by a device that is open.
BufferAllocator::Ion BufferAllocator::getIon() {
    MutexLock lock(m_mutex);
    return m_ion;
}

KelmError BufferAllocator::alloc(unsigned long size, KelmBuffer* buffer) {
    if (size == 0) {
        LOG_ERROR("Error: size(%ld) <= 0", size);
        return KELM_ERROR_INVALID_PARAM;
    }
    if (buffer == nullptr) {
        LOG_ERROR("Error: KelmBuffer* buffer is NULL");
        return KELM_ERROR_INVALID_PARAM;
    }
    const Ion ion = openIon();
    if (ion.fd < 0) return KELM_ERROR_BUFFER_ALLOC_FAILED;
    Handle handle(ion);
    uint64_t trailing = 0;  // the last argument, of a width that is not documented
    if (ion.library->ion_alloc_only(ion.fd, size, kAlign, kHeapMask, kFlags, &handle.number,
                                    &trailing) < 0) {
        // A failed call has given no handle, whatever it left in the number.
        handle.keep();
        LOG_ERROR(
            "Error: ion_alloc(ionFd=%d size=%lu align=%ld mask=%x flag=%x) failed. errno = "
            "%d(%s).",
            ion.fd, size, kAlign, kHeapMask, kFlags, errno, std::strerror(errno));
        return KELM_ERROR_BUFFER_ALLOC_FAILED;
    }
    int shared = -1;
    if (ion.library->ion_share(ion.fd, handle.number, &shared) < 0) {
        LOG_ERROR("Error: ion_share failed: ionFd=%d user_handle=%d errno = %d", ion.fd,
                  handle.number, errno);
        return KELM_ERROR_BUFFER_ALLOC_FAILED;
    }
    // From here every way out closes it, and then gives the handle back.
    UniqueFd shareFd(shared);
    void* const data = MappingGuard::map(shared, size);
    if (data == nullptr) {
        LOG_ERROR("Error: mmap failed: fd=%d size=%lu error=%d(%s).", shared, size, errno,
                  std::strerror(errno));
        return KELM_ERROR_BUFFER_ALLOC_FAILED;
    }
    fill(*buffer, data, size, shareFd.release(), handle.keep());
    return KELM_OK;
}

// After a failure the descriptor is still the caller's; otherwise free() closes it with the buffer.
KelmError BufferAllocator::import(int fd, KelmBuffer* buffer) {
    if (fd < 1) {
        LOG_ERROR("Error: fd(%d) <= 0.", fd);
        return KELM_ERROR_INVALID_PARAM;
    }
    if (buffer == nullptr) {
        LOG_ERROR("Error: KelmBuffer* buffer is NULL.");
        return KELM_ERROR_INVALID_PARAM;
    }
    const Ion ion = openIon();
    if (ion.fd < 0) return KELM_ERROR_BUFFER_ALLOC_FAILED;
    Handle handle(ion);
    if (ion.library->ion_import(ion.fd, fd, &handle.number) != 0) {
        handle.keep();
        LOG_ERROR("Error: ion_import failed: ionFd=%d fd=%d error=%d(%s)\n", ion.fd, fd, errno,
                  std::strerror(errno));
        return KELM_ERROR_BUFFER_ALLOC_FAILED;
    }
    uint64_t unused[2] = {};  // of a width that is not documented
    auto* const places = reinterpret_cast<unsigned int*>(unused);
    unsigned long size = 0;
    if (ion.library->ion_get_info(ion.fd, handle.number, places, places + 2, &size) != 0) {
        LOG_ERROR("Error: ion_get_info failed: ionFd=%d user_handle=%d error=%d(%s)\n", ion.fd,
                  handle.number, errno, std::strerror(errno));
        return KELM_ERROR_BUFFER_ALLOC_FAILED;
    }
    // The size is the device's word, not the client's.
    void* const data = MappingGuard::map(fd, size);
    if (data == nullptr) {
        LOG_ERROR("Error: mmap failed: fd=%d size=%lu error=%d(%s)\n", fd, size, errno,
                  std::strerror(errno));
        return KELM_ERROR_BUFFER_ALLOC_FAILED;
    }
    fill(*buffer, data, size, fd, handle.keep());
    return KELM_OK;
}

// In the reverse order of making: mapping, handle, descriptor. A failure on the way is no reason to
// keep the rest.
KelmError BufferAllocator::free(KelmBuffer* buffer) {
    if (buffer == nullptr) {
        LOG_ERROR("Error: KelmBuffer* buffer is NULL");
        return KELM_ERROR_INVALID_PARAM;
    }
    if (buffer->buffer != 0) {
        (void)MappingGuard::unmap(reinterpret_cast<void*>(buffer->buffer), buffer->size);
    }
    if (buffer->ionHandle > 0) {
        const Ion ion = getIon();
        if (ion.fd >= 0 && ion.library->ion_free(ion.fd, buffer->ionHandle) < 0) {
            LOG_ERROR("ion_free failed: ionFd=%d ionHandle=%d", ion.fd, buffer->ionHandle);
        }
    }
    if (buffer->fd > 0) {
        closeOfPeer(buffer->fd);
        buffer->fd = 0;
    }
    return KELM_OK;
}

KelmError BufferAllocator::getBufferData(KelmBuffer* buffer, void** data) {
    if (buffer == nullptr) {
        LOG_ERROR("Error: KelmBuffer* buffer is NULL");
        return KELM_ERROR_INVALID_PARAM;
    }
    if (data == nullptr) {
        LOG_ERROR("Error: data is NULL");
        return KELM_ERROR_INVALID_PARAM;
    }
    *data = reinterpret_cast<void*>(buffer->buffer);
    return KELM_OK;
}

KelmError BufferAllocator::getShareFd(KelmBuffer* buffer, int* fd) {
    if (buffer == nullptr) {
        LOG_ERROR("Error: KelmBuffer* buffer is NULL");
        return KELM_ERROR_INVALID_PARAM;
    }
    if (fd == nullptr) {
        LOG_ERROR("Error: shareFd is NULL");
        return KELM_ERROR_INVALID_PARAM;
    }
    *fd = buffer->fd;
    return KELM_OK;
}

}  // namespace kelm
