#pragma once

#include <cstddef>

#include "utils/NonCopyable.h"
#include "utils/UniqueMalloc.h"

namespace kelm {

// Copies inputs one after another. The memory of small ones is kept for the next: to get it anew,
// and touch each of its pages for the first time, costs several times as much as the copy.
//
// Threads: one at a time. Owns: the last copy, of at most kMostKept bytes.
class InputCopy : public NonCopyable {
 public:
    static constexpr size_t kMostKept = size_t{1} << 20;

    // False if there is no memory for so many bytes.
    bool take(const char* data, size_t bytes);

 private:
    UniqueMalloc<char> m_memory;
    size_t m_size = 0;
};

}  // namespace kelm
