#include "utils/BlockCache.h"

#include <new>

// Compilers tell of their sanitizers in two ways; a kept block would hide a use after its release.
#if defined(__has_feature)
#define KELM_HAS_FEATURE(feature) __has_feature(feature)
#else
#define KELM_HAS_FEATURE(feature) 0
#endif

namespace kelm {

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || \
    KELM_HAS_FEATURE(address_sanitizer) || KELM_HAS_FEATURE(thread_sanitizer)
constexpr bool kKeepBlocks = false;
#else
constexpr bool kKeepBlocks = true;
#endif

}  // namespace

BlockCache::~BlockCache() {
    while (m_free != nullptr) {
        FreeBlock* const block = m_free;
        m_free = block->next;
        ::operator delete(block);
    }
}

// The heap is asked without the mutex: it has locks of its own, and other threads need not wait.
void* BlockCache::take() {
    {
        MutexLock lock(m_mutex);
        if (m_free != nullptr) {
            FreeBlock* const block = m_free;
            m_free = block->next;
            --m_freeNum;
            return block;
        }
    }
    return ::operator new(m_blockSize);
}

void BlockCache::give(void* block) noexcept {
    if (block == nullptr) return;
    if (kKeepBlocks) {
        MutexLock lock(m_mutex);
        // The list is kept in the free blocks themselves, so that giving one back cannot fail.
        if (m_freeNum < m_maxBlocks) {
            m_free =
                ::new (block) FreeBlock{m_free};  // last in, first out: it is still in the cache
            ++m_freeNum;
            return;
        }
    }
    ::operator delete(block);
}

size_t BlockCache::keptBlocks() {
    MutexLock lock(m_mutex);
    return m_freeNum;
}

}  // namespace kelm
