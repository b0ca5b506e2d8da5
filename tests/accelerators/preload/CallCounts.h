#pragma once

#include <atomic>
#include <cstdint>

namespace kelm {

// What a process asks of the heap while it is not inside of the accelerator library. Lies in the
// file that KELM_CALL_COUNTS names.
struct CallCounts {
    std::atomic<uint64_t> allocations;
};

}  // namespace kelm
