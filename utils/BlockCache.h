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
    struct FreeBlock {
        FreeBlock* next;
    };

 public:
    BlockCache(size_t blockSize, size_t maxBlocks)
        : m_blockSize(blockSize), m_maxBlocks(maxBlocks) {}
    ~BlockCache();

    // A few blocks that one thread keeps for itself and moves from and to the cache by the dozen,
    // without a lock for each. Without a destructor, since blocks come back until the very end of a
    // thread; its End gives them to the cache before.
    struct Local {
        FreeBlock* free = nullptr;
        size_t count = 0;
        bool ended = false;
    };
    class End : public NonCopyable {
     public:
        End(BlockCache& cache, Local& local) : m_cache(cache), m_local(local) {}
        ~End();

     private:
        BlockCache& m_cache;
        Local& m_local;
    };

    // A block of the size; throws std::bad_alloc. `local` is the calling thread's.
    void* take(Local& local) EXCLUDES(m_mutex);
    // Null is accepted.
    void give(Local& local, void* block) noexcept EXCLUDES(m_mutex);

    size_t keptBlocks() EXCLUDES(m_mutex);

 private:
    static void push(FreeBlock*& list, void* block);
    static FreeBlock* pop(FreeBlock*& list);
    void fill(Local& local) EXCLUDES(m_mutex);
    // Leaves `rest` blocks with the thread.
    void empty(Local& local, size_t rest) EXCLUDES(m_mutex);

    const size_t m_blockSize;  // at least a pointer's
    const size_t m_maxBlocks;
    Mutex m_mutex;
    FreeBlock* m_free GUARDED_BY(m_mutex) = nullptr;
    size_t m_freeNum GUARDED_BY(m_mutex) = 0;
};

}  // namespace kelm
