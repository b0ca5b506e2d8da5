#pragma once

#include <cstdlib>
#include <memory>

namespace kelm {

struct FreeDeleter {
    void operator()(void* block) const { std::free(block); }
};

// Owns a block that goes to free().
template <class T>
using UniqueMalloc = std::unique_ptr<T[], FreeDeleter>;

}  // namespace kelm
