#include "protocol/src/MessagePool.h"

#include <iterator>
#include <new>
#include <utility>

#include "utils/BlockCache.h"

namespace kelm::messagePool {

namespace {

// Stands before each record, which begins behind it.
struct alignas(std::max_align_t) Header {
    bool ownsDescriptors = false;
    uint16_t sizeClass = 0;
    std::shared_ptr<const void> origin;
};

// Most answers, the infer request, the create request: those that come in a steady stream.
constexpr size_t kRecordSizes[] = {sizeof(KelmMsgRspCreateGraph), sizeof(KelmMsgReqInferTask),
                                   sizeof(KelmMsgReqCreateGraph)};
// A larger record, the status report, is not kept.
constexpr uint16_t kNotKept = std::size(kRecordSizes);

// Together less than a megabyte.
struct Pool {
    BlockCache blocks[kNotKept] = {{sizeof(Header) + kRecordSizes[0], 512},
                                   {sizeof(Header) + kRecordSizes[1], 512},
                                   {sizeof(Header) + kRecordSizes[2], 16}};
};

// Never destroyed: singletons release messages while the process ends.
Pool& pool() {
    static Pool& obj = *new Pool;
    return obj;
}

struct LocalPool {
    BlockCache::Local blocks[kNotKept];
};

// The calling thread's.
LocalPool& localPool() {
    thread_local LocalPool local;
    thread_local const BlockCache::End ends[kNotKept] = {{pool().blocks[0], local.blocks[0]},
                                                         {pool().blocks[1], local.blocks[1]},
                                                         {pool().blocks[2], local.blocks[2]}};
    return local;
}

uint16_t findSizeClass(size_t size) {
    uint16_t sizeClass = 0;
    while (sizeClass < kNotKept && size > kRecordSizes[sizeClass]) ++sizeClass;
    return sizeClass;
}

Header* headerOf(const KelmMsgBase* message) {
    return reinterpret_cast<Header*>(const_cast<KelmMsgBase*>(message)) - 1;
}

}  // namespace

// Null and no exception: the peer's message is refused then, and the service goes on.
KelmMsgBase* allocate(size_t size) try {
    // A block has the size of its class, so that the next record of the class fits.
    const uint16_t sizeClass = findSizeClass(size);
    void* const memory = sizeClass == kNotKept
                             ? ::operator new(sizeof(Header) + size)
                             : pool().blocks[sizeClass].take(localPool().blocks[sizeClass]);
    auto* const header = ::new (memory) Header;
    header->sizeClass = sizeClass;
    return reinterpret_cast<KelmMsgBase*>(header + 1);
} catch (const std::bad_alloc&) {
    return nullptr;
}

void release(KelmMsgBase* message) {
    Header* const header = headerOf(message);
    const uint16_t sizeClass = header->sizeClass;
    header->~Header();  // at once: a kept block must not hold the connection's number
    if (sizeClass == kNotKept) {
        ::operator delete(header);
    } else {
        pool().blocks[sizeClass].give(localPool().blocks[sizeClass], header);
    }
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
