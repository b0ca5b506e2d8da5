#pragma once

#include <cstddef>

#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm {

// Keeps freed blocks of one size for the next use, so that records which are made and given back
// for every task cost no trip to the heap. Built with a sanitizer it keeps nothing, so that a use
// after the release is seen.
//
// Threads: any. Owns: the kept blocks, at most `maxBlocks`. Locks: m_mutex is a leaf.
class BlockCache : public NonCopyable {
 public:
    BlockCache(size_t blockSize, size_t maxBlocks)
        : m_blockSize(blockSize), m_maxBlocks(maxBlocks) {}
    ~BlockCache();

    // A block of the size; throws std::bad_alloc.
    void* take() EXCLUDES(m_mutex);
    // Null is accepted.
    void give(void* block) noexcept EXCLUDES(m_mutex);

    size_t keptBlocks() EXCLUDES(m_mutex);

 private:
    struct FreeBlock {
        FreeBlock* next;
    };

    const size_t m_blockSize;  // at least a pointer's
    const size_t m_maxBlocks;
    Mutex m_mutex;
    FreeBlock* m_free GUARDED_BY(m_mutex) = nullptr;
    size_t m_freeNum GUARDED_BY(m_mutex) = 0;
};

}  // namespace kelm
