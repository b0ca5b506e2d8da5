#pragma once

#include <cstddef>

namespace kelm {

// Memory that is kept back for when there is none left. `new` gives it up before it fails, so that
// what is under way can end and be answered. Large blocks, for which clients ask, come by malloc()
// and fail alone.
//
// Threads: any. Owns: the block, for the life of the process.
class MemoryReserve {
 public:
    static constexpr size_t kBytes = size_t{4} << 20;

    // Takes the place of the process's new-handler.
    static void install();
    // Takes it back after it was given up, at most one attempt a second. Costs nothing while it is
    // there.
    static void renew();
};

}  // namespace kelm
