#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "utils/FileRights.h"
#include "utils/NonCopyable.h"

namespace kelm {

// One POSIX shared memory object, mapped for reading and writing.
//
// Threads: one at a time. Owns: the mapping, and the name if it made the object.
class ShareMemory : public NonCopyable {
 public:
    ShareMemory() = default;
    ~ShareMemory();  // reset()

    // Makes the object and maps it; null, with an ERROR line, on failure.
    void* create(const char* name, unsigned long size);
    // Maps `size` bytes of an object that is there; null, with an ERROR line, on failure, which an
    // object of fewer bytes is too: it would end the process at the first touch behind its end.
    void* open(const char* name, unsigned long size);
    // The same for a peer, which must be allowed what it `wanted`: the object is opened with this
    // process's rights, which may be more than the peer's.
    void* openFor(const PeerCredentials& peer, FileRights::Access wanted, const char* name,
                  unsigned long size);
    // Unmaps, and takes the name away if this object made it.
    void reset();

 private:
    using Check = std::function<bool(int fd)>;

    bool open(const char* name, unsigned long size, int oflag, const Check& check);

    std::string m_name;
    uint64_t m_size = 0;
    void* m_data = nullptr;
    bool m_created = false;
};

}  // namespace kelm
