#include "records/KelmTaskParam.h"

#include <new>
#include <utility>

#include "records/BufferAllocator.h"
#include "utils/BlockCache.h"
#include "utils/ShareMemory.h"

namespace kelm {

namespace {

// Tasks in flight beyond this number are rare enough for the heap.
constexpr size_t kParamsToKeep = 512;

// Never destroyed: a block may come back while static objects are being destroyed.
BlockCache& paramCache() {
    static BlockCache& obj = *new BlockCache(sizeof(KelmTaskParam), kParamsToKeep);
    return obj;
}

BlockCache::Local& localParamBlocks() {
    thread_local BlockCache::Local local;
    thread_local const BlockCache::End end(paramCache(), local);
    return local;
}

}  // namespace

KelmTaskParam* KelmTaskParam::create(const KelmBuffer& input, const KelmBuffer& output,
                                     const KelmBuffer& aux,
                                     std::shared_ptr<const PeerCredentials> peer) {
    return new KelmTaskParam(input, output, aux, std::move(peer));
}

KelmTaskParam::KelmTaskParam(const KelmBuffer& input, const KelmBuffer& output,
                             const KelmBuffer& aux, std::shared_ptr<const PeerCredentials> peer)
    : m_inputBuffer(input), m_outputBuffer(output), m_auxBuffer(aux), m_peer(std::move(peer)) {}

KelmTaskParam::~KelmTaskParam() {
    releaseBuffer(m_inputBuffer);
    releaseBuffer(m_outputBuffer);
    releaseBuffer(m_auxBuffer);
}

// A shared memory object unmaps itself; what the allocator has mapped it takes back. A descriptor
// is closed whatever the buffer's type says: the type is the client's word, and no descriptor of a
// task may stay open.
void KelmTaskParam::releaseBuffer(KelmBuffer& buffer) {
    if (buffer.shareMemory != 0) {
        delete reinterpret_cast<ShareMemory*>(buffer.shareMemory);
        buffer.shareMemory = 0;
        buffer.buffer = 0;
        buffer.size = 0;
    }
    (void)BufferAllocator::instance().free(&buffer);  // fails on null only
}

void* KelmTaskParam::operator new(size_t size) {
    if (size != sizeof(KelmTaskParam)) return ::operator new(size);
    return paramCache().take(localParamBlocks());
}

void KelmTaskParam::operator delete(void* block) { paramCache().give(localParamBlocks(), block); }

}  // namespace kelm
