#include "protocol/src/MessagePool.h"

#include <cstdlib>
#include <new>
#include <utility>

#include "utils/Mutex.h"

namespace kelm::messagePool {

namespace {

struct alignas(std::max_align_t) Header {
    Header* next = nullptr;  // in a free list
    uint16_t sizeClass = 0;
    bool ownsDescriptors = false;
    std::shared_ptr<const void> origin;
};

struct FreeList {
    FreeList(size_t size, size_t most) : recordSize(size), limit(most) {}

    const size_t recordSize;
    const size_t limit;  // blocks that are kept
    Mutex mutex;
    Header* first GUARDED_BY(mutex) = nullptr;
    size_t count GUARDED_BY(mutex) = 0;
};

// Together less than a megabyte. A record of the last kind, the status report, is not kept.
struct Pool {
    FreeList lists[3] = {{sizeof(KelmMsgRspCreateGraph), 512},
                         {sizeof(KelmMsgReqInferTask), 512},
                         {sizeof(KelmMsgReqCreateGraph), 16}};
};
constexpr uint16_t kNotKept = 3;

// Sanitizers are to see each message as a block of its own.
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KELM_SANITIZED
#endif
#endif
#if defined(KELM_SANITIZED) || defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kKeepsBlocks = false;
#else
constexpr bool kKeepsBlocks = true;
#endif

// Never destroyed: singletons release messages while the process ends.
Pool& pool() {
    static Pool& obj = *new Pool;
    return obj;
}

uint16_t findSizeClass(size_t size) {
    uint16_t sizeClass = 0;
    while (sizeClass < kNotKept && size > pool().lists[sizeClass].recordSize) ++sizeClass;
    return sizeClass;
}

Header* takeKept(uint16_t sizeClass) {
    FreeList& list = pool().lists[sizeClass];
    MutexLock lock(list.mutex);
    Header* const block = list.first;
    if (block == nullptr) return nullptr;
    list.first = block->next;
    --list.count;
    return block;
}

bool keep(Header* block) {
    if (!kKeepsBlocks || block->sizeClass == kNotKept) return false;
    FreeList& list = pool().lists[block->sizeClass];
    MutexLock lock(list.mutex);
    if (list.count == list.limit) return false;
    block->next = list.first;
    list.first = block;
    ++list.count;
    return true;
}

Header* headerOf(const KelmMsgBase* message) {
    return reinterpret_cast<Header*>(const_cast<KelmMsgBase*>(message)) - 1;
}

}  // namespace

KelmMsgBase* allocate(size_t size) {
    // A block has the size of its class, so that the next record of the class fits.
    const uint16_t sizeClass = findSizeClass(size);
    Header* block = sizeClass == kNotKept ? nullptr : takeKept(sizeClass);
    if (block == nullptr) {
        const size_t room = sizeClass == kNotKept ? size : pool().lists[sizeClass].recordSize;
        void* const memory = std::malloc(sizeof(Header) + room);
        if (memory == nullptr) return nullptr;
        block = ::new (memory) Header;
    }
    block->sizeClass = sizeClass;
    block->ownsDescriptors = false;
    return reinterpret_cast<KelmMsgBase*>(block + 1);
}

void release(KelmMsgBase* message) {
    Header* const block = headerOf(message);
    block->origin.reset();  // at once: a kept block must not hold the connection's number
    if (keep(block)) return;
    block->~Header();
    std::free(block);
}

bool ownsDescriptors(const KelmMsgBase* message) { return headerOf(message)->ownsDescriptors; }

void setOwnsDescriptors(KelmMsgBase* message) { headerOf(message)->ownsDescriptors = true; }

const std::shared_ptr<const void>& origin(const KelmMsgBase* message) {
    return headerOf(message)->origin;
}

void setOrigin(KelmMsgBase* message, std::shared_ptr<const void> connection) {
    headerOf(message)->origin = std::move(connection);
}

}  // namespace kelm::messagePool
