#pragma once

#include <atomic>
#include <cstdint>

namespace kelm {

// What a process asks of heap and system while it is not inside of the accelerator library. Lies in
// the file that KELM_CALL_COUNTS names.
struct CallCounts {
    std::atomic<uint64_t> allocations;
    std::atomic<uint64_t> mappings;  // mmap and munmap; without one no tensor is copied either
};

}  // namespace kelm
