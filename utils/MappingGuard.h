#pragma once

#include <cstddef>

namespace kelm {

// Maps files of clients. A client can shorten its file at any time, and a touch behind the new end
// raises SIGBUS, which would end the process and all its clients' work. Here such a mapping becomes
// zeros of this process instead: the touch succeeds, and from then on the mapping is lost. A SIGBUS
// that has another cause ends the process as if there were no guard.
//
// Threads: any, the signal handler included. No thread may touch a mapping that is being unmapped.
// Owns: the process's handler of SIGBUS, from the first mapping on.
// Locks: none; the handler finds the mappings in a table of atomics.
class MappingGuard {
 public:
    // A task has three mappings at most, from its device's queue until its record is destroyed. Of
    // those tasks there are some hundred on the devices, as many as may wait (300) that a lost
    // device has returned, and 1,000 in the queue that ends them. This is three times as much, and
    // a quarter of what the kernel lets a process have.
    static constexpr size_t kMaxMappings = 16384;

    // The first `size` bytes of the file, shared, for reading and writing; null, with errno set, if
    // they cannot be mapped or there are kMaxMappings already.
    static void* map(int fd, size_t size);
    // Undoes map(), with an ERROR line if the mapping was lost; false, with errno set, on failure.
    static bool unmap(void* data, size_t size);
    // Whether what map() returned has been replaced by zeros.
    static bool isLost(const void* data);
};

}  // namespace kelm
