#include "protocol/src/KelmProtocol.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "protocol/src/MessagePool.h"
#include "utils/ConnectionBase.h"
#include "utils/Log.h"
#include "utils/PeerCredentials.h"
#include "utils/PeerDescriptor.h"

namespace kelm {

// Zeroed as a whole: the gaps between fields go over the wire too, and must carry no old memory.
KelmMsgBase* kelmAllocMessage(KelmMsgType type) {
    if (type >= kMessageTypes || KelmMessageSize[type] == 0) return nullptr;
    const uint64_t size = KelmMessageSize[type];
    KelmMsgBase* const message = messagePool::allocate(size);
    if (message == nullptr) return nullptr;
    std::memset(static_cast<void*>(message), 0, size);
    message->type = type;
    message->size = size;
    return message;
}

namespace {

void freeInnerBuffers(KelmMsgBase* message) {
    // Counts are cut here too, since records that a caller built reach this without a check.
    const uint32_t count = std::min(message->innerBufferNum, kMaxMessageBlocks);
    for (uint32_t i = 0; i < count; ++i)
        std::free(reinterpret_cast<void*>(message->innerBuffer[i]));
    message->innerBufferNum = 0;
}

}  // namespace

// Each entry is marked as closed, so that a second release does no harm to a number that is in use
// again by then.
void kelmCloseDescriptors(KelmMsgBase* message) {
    const uint32_t count = std::min(message->fdNum, kMaxMessageFds);
    for (uint32_t i = 0; i < count; ++i) {
        if (message->fd[i] >= 0) closeOfPeer(message->fd[i]);
        message->fd[i] = -1;
    }
}

void kelmReleaseContents(KelmMsgBase* message) {
    freeInnerBuffers(message);
    kelmCloseDescriptors(message);
}

// A record that was built here to be sent names descriptors of its sender, which are not closed.
void kelmReleaseMessage(KelmMsgBase* message) {
    if (message == nullptr) return;
    freeInnerBuffers(message);
    if (messagePool::ownsDescriptors(message)) kelmCloseDescriptors(message);
    messagePool::release(message);
}

// Of several graph binaries only the last is used; the earlier ones need no memory at all.
bool kelmKeepsBlock(const KelmMsgBase& message, uint32_t index) {
    if (message.type != KELM_MESSAGE_CREATE_GRAPH_REQ) return false;
    const uint32_t count = std::min(message.dataNum, kMaxMessageBlocks);
    if (index >= count || message.dataType[index] != kGraphBlockType) return false;
    const uint32_t* const end = message.dataType + count;
    return std::find(message.dataType + index + 1, end, kGraphBlockType) == end;
}

// The address is looked for among the blocks that this process has made: a peer's number is never
// taken for memory of this side.
UniqueMalloc<char> kelmTakeBlock(KelmMsgBase* message, uint64_t address) {
    const uint32_t count = std::min(message->innerBufferNum, kMaxMessageBlocks);
    uint64_t* const end = message->innerBuffer + count;
    uint64_t* const block = std::find(message->innerBuffer, end, address);
    if (block == end || address == 0) return nullptr;
    *block = 0;  // free() of it, with the others, does nothing
    return UniqueMalloc<char>(reinterpret_cast<char*>(address));
}

// The answer may be written long after its request was released, by the connection's number.
void kelmShareOrigin(const KelmMsgBase& request, KelmMsgBase& answer) {
    messagePool::setOrigin(&answer, messagePool::origin(&request));
}

std::shared_ptr<const PeerCredentials> kelmGetPeer(const KelmMsgBase& request) {
    static const auto& kNobody = *new std::shared_ptr<const PeerCredentials>(
        std::make_shared<PeerCredentials>(PeerCredentials{0, static_cast<uid_t>(-1), {}}));
    const std::shared_ptr<const void>& origin = messagePool::origin(&request);
    if (!origin) return PeerCredentials::ofThisProcess();
    const auto& peer = static_cast<const IPC::ConnectionBase*>(origin.get())->getPeer();
    return peer ? peer : kNobody;  // connections that were accepted have one; a user without rights
}

// At most as many as the record can name: each is freed by its entry there.
void* allocInnerBuffer(KelmMsgBase* message, size_t size) {
    if (message == nullptr || size == 0) return nullptr;
    if (message->innerBufferNum >= kMaxMessageBlocks) return nullptr;
    void* const block = std::malloc(size);
    if (block == nullptr) {
        LOG_ERROR("Error: malloc %d bytes buffer failed.", size);
        return nullptr;
    }
    message->innerBuffer[message->innerBufferNum++] = reinterpret_cast<uint64_t>(block);
    return block;
}

void* growInnerBuffer(KelmMsgBase* message, size_t size) {
    // Only the latest block grows: blocks are received one after the other.
    uint64_t& last = message->innerBuffer[message->innerBufferNum - 1];
    void* const block = std::realloc(reinterpret_cast<void*>(last), size);
    if (block == nullptr) {
        LOG_ERROR("Error: malloc %d bytes buffer failed.", size);
        return nullptr;
    }
    last = reinterpret_cast<uint64_t>(block);
    return block;
}

namespace {

constexpr uint32_t kNoBuffer = UINT32_MAX;

// By the type of the block; of several buffers of one type the first counts.
uint32_t findPrepared(const KelmMsgBase& message, uint32_t index) {
    const uint32_t* const end = message.recvType + std::min(message.recvNum, kMaxMessageBlocks);
    const uint32_t* const match = std::find(message.recvType, end, message.dataType[index]);
    return match != end ? static_cast<uint32_t>(match - message.recvType) : kNoBuffer;
}

// The peer's word for an address is not enough: it would write where it likes.
bool isPrepared(PreparedBuffers prepared, uint64_t address, uint64_t size) {
    return std::any_of(prepared.begin(), prepared.end(), [&](const PreparedBuffer& buffer) {
        return reinterpret_cast<uint64_t>(buffer.address) == address && buffer.size >= size;
    });
}

}  // namespace

bool checkPreparedSize(const KelmMsgBase& message, uint32_t index) {
    const auto size = static_cast<uint32_t>(message.dataSize[index]);
    const uint32_t j = findPrepared(message, index);
    if (j == kNoBuffer || size <= message.recvSize[j]) return true;
    LOG_ERROR(
        "Error: Prepared Buffer (size=%ld Byte) to                     recevie data "
        "(dataType=%d) is not large enough. (Required %ld Bytes).",
        message.recvSize[j], message.dataType[index], size);
    return false;
}

void* getBufferForRecv(KelmMsgBase* message, uint32_t index, PreparedBuffers prepared) {
    if (index >= message->dataNum || index >= kMaxMessageBlocks ||
        !checkPreparedSize(*message, index)) {
        return nullptr;
    }
    const auto size = static_cast<uint32_t>(message->dataSize[index]);
    const uint32_t j = findPrepared(*message, index);
    if (j != kNoBuffer && isPrepared(prepared, message->recvData[j], size)) {
        return reinterpret_cast<void*>(message->recvData[j]);
    }
    return allocInnerBuffer(message, std::min(size, kFirstPieceBytes));
}

}  // namespace kelm
