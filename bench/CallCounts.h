#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace kelm::bench {

// The file in which CallCounter.cpp counts, by the environment variable of this name.
constexpr const char* kCallCountsVariable = "KELM_BENCH_CALL_COUNTS";

// The file's content; zeros at first. A thread keeps to one slot, a cache line, so that counting
// adds no contention. Past the last slot threads share, which is slower and still exact.
struct CallCounts {
    struct alignas(64) Slot {
        std::atomic<uint64_t> mutexLocks;
        std::atomic<uint64_t> allocations;
    };
    static constexpr size_t kSlots = 1024;

    std::atomic<uint32_t> threads;
    std::array<Slot, kSlots> slots;
};

}  // namespace kelm::bench
