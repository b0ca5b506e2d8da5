#pragma once

#include "protocol/src/KelmError.h"
#include "utils/Mutex.h"
#include "utils/Singleton.h"

namespace kelm {

struct IonFunctions;
struct KelmBuffer;

// Turns the description of a tensor buffer that came by descriptor into memory, and back.
//
// Threads: any; a buffer belongs to one at a time. Owns: the ION device, opened when a buffer first
// needs it: without a client that uses it, a machine without the device is as good.
// Locks: m_mutex is a leaf, held while the device is opened.
// Every error but a wrong argument is KELM_ERROR_BUFFER_ALLOC_FAILED, with an ERROR line.
class BufferAllocator : public Singleton<BufferAllocator> {
 public:
    BufferAllocator() = default;
    ~BufferAllocator();

    // Makes a new buffer and maps it.
    KelmError alloc(unsigned long size, KelmBuffer* buffer) EXCLUDES(m_mutex);
    // Maps a descriptor that a client has sent, in the size that the device tells.
    KelmError import(int fd, KelmBuffer* buffer) EXCLUDES(m_mutex);
    // Undoes either, and closes the descriptor also of a buffer that was never mapped. To be called
    // once: the address of the mapping stays in the buffer.
    KelmError free(KelmBuffer* buffer) EXCLUDES(m_mutex);
    KelmError getBufferData(KelmBuffer* buffer, void** data);
    KelmError getShareFd(KelmBuffer* buffer, int* fd);

 private:
    // The ION device and the library that opened it; null and negative before.
    struct Ion {
        const IonFunctions* library = nullptr;
        int fd = -1;
    };
    class Handle;

    // Opened now if need be; `fd` is negative on failure.
    Ion openIon() EXCLUDES(m_mutex);
    Ion getIon() EXCLUDES(m_mutex);

    Mutex m_mutex;
    Ion m_ion GUARDED_BY(m_mutex);
};

}  // namespace kelm
