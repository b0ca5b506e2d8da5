#pragma once

#include <atomic>
#include <cstdint>

namespace kelm::prove {

// What a client has counted so far, in a file that whoever started it reads at any time; prove.py
// knows the order. Atomic: results come on threads of the library.
struct Counts {
    std::atomic<uint64_t> taken;       // tasks that the library has taken
    std::atomic<uint64_t> right;       // results, every byte checked if the client checks
    std::atomic<uint64_t> wrong;       // ends as good, and some byte is not
    std::atomic<uint64_t> failed;      // ends with an error of the service's
    std::atomic<uint64_t> lost;        // ended by the end of a connection
    std::atomic<uint64_t> unanswered;  // no end within the deadline
    std::atomic<uint64_t> refused;     // not taken, or for another reason of the library's own
    std::atomic<uint64_t> twice;       // ends of a task that had ended
    std::atomic<uint64_t> reconnects;
    std::atomic<uint64_t> loaded;  // graphs, at the start
};

}  // namespace kelm::prove
