#pragma once

#include <cstddef>

namespace kelm {

// While it lives, the program's own code gets no block of `bytes` or more, by malloc(), realloc()
// or new: for programs that kelm_failing_memory() has linked, see tests/CMakeLists.txt. One at a
// time.
//
// Threads: it holds for all.
class NoMemoryFrom {
 public:
    explicit NoMemoryFrom(size_t bytes);
    ~NoMemoryFrom();
    NoMemoryFrom(const NoMemoryFrom&) = delete;
    NoMemoryFrom& operator=(const NoMemoryFrom&) = delete;
};

}  // namespace kelm
