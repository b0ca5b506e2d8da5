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

constexpr size_t kMostLocal = 8;
constexpr size_t kMoved = kMostLocal / 2;

}  // namespace

BlockCache::~BlockCache() {
    while (m_free != nullptr) ::operator delete(pop(m_free));
}

BlockCache::End::~End() {
    m_cache.empty(m_local, 0);
    m_local.ended = true;
}

// The list is kept in the free blocks themselves, so that giving one back cannot fail.
void BlockCache::push(FreeBlock*& list, void* block) { list = ::new (block) FreeBlock{list}; }

BlockCache::FreeBlock* BlockCache::pop(FreeBlock*& list) {
    FreeBlock* const block = list;
    list = block->next;
    return block;
}

// The heap is asked without the mutex: it has locks of its own, and other threads need not wait.
void* BlockCache::take(Local& local) {
    if (local.count == 0) fill(local);
    if (local.count == 0) return ::operator new(m_blockSize);
    --local.count;
    return pop(local.free);
}

// Last in, first out: the block is still in the processor's cache.
void BlockCache::give(Local& local, void* block) noexcept {
    if (block == nullptr) return;
    if (!kKeepBlocks) {
        ::operator delete(block);
        return;
    }
    push(local.free, block);
    ++local.count;
    if (local.count > kMostLocal || local.ended) empty(local, local.ended ? 0 : kMoved);
}

void BlockCache::fill(Local& local) {
    MutexLock lock(m_mutex);
    for (; local.count < kMoved && m_freeNum > 0; ++local.count, --m_freeNum) {
        push(local.free, pop(m_free));
    }
}

void BlockCache::empty(Local& local, size_t rest) {
    FreeBlock* surplus = nullptr;
    {
        MutexLock lock(m_mutex);
        for (; local.count > rest; --local.count) {
            const bool fits = m_freeNum < m_maxBlocks;
            push(fits ? m_free : surplus, pop(local.free));
            if (fits) ++m_freeNum;
        }
    }
    while (surplus != nullptr) ::operator delete(pop(surplus));
}

size_t BlockCache::keptBlocks() {
    MutexLock lock(m_mutex);
    return m_freeNum;
}

}  // namespace kelm
