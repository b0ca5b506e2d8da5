#pragma once

#include <chrono>
#include <cstddef>

#include "utils/NonCopyable.h"

namespace kelm {

// What happens when there is no memory left. A block is kept back; `new` gives it up before it
// fails, so that what is under way can end and be answered. After that `new` waits, since work that
// an exception ends halfway loses tasks; how long is up to the thread, see Patience. Large blocks,
// for which clients ask, come by malloc() and fail alone.
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

    // How long `new` waits on the calling thread before it throws, while this lives. For a thread
    // that can tell of the failure, or that must not fail.
    class Patience : public NonCopyable {
     public:
        explicit Patience(std::chrono::milliseconds limit);
        ~Patience();

     private:
        const std::chrono::milliseconds m_before;
    };
    static constexpr std::chrono::milliseconds kNoWait{0};
    static constexpr std::chrono::milliseconds kUsualWait{5'000};
    static constexpr std::chrono::milliseconds kAnyTime = std::chrono::hours(24 * 365);
};

}  // namespace kelm
