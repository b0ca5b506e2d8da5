#include <algorithm>
#include <cstring>
#include <exception>
#include <utility>

#include "protocol/src/KelmProtocol.h"
#include "protocol/src/MessagePool.h"
#include "utils/ErrorHelper.h"
#include "utils/IPC.h"
#include "utils/Log.h"

namespace kelm {

namespace {

constexpr uint32_t kMaxReadBytes = 1U << 30;  // of one call, whose size is an int

// What this side called its own prepared buffers comes back as `recv...`.
void swapPreparedBuffers(KelmMsgBase& head) {
    const uint32_t count = std::min(std::max(head.recvNum, head.peerRecvNum), kMaxMessageBlocks);
    std::swap_ranges(head.recvData, head.recvData + count, head.peerRecvData);
    std::swap_ranges(head.recvSize, head.recvSize + count, head.peerRecvSize);
    std::swap_ranges(head.recvType, head.recvType + count, head.peerRecvType);
    std::swap(head.recvNum, head.peerRecvNum);
    head.recvNum = std::min(head.recvNum, kMaxMessageBlocks);
    head.peerRecvNum = std::min(head.peerRecvNum, kMaxMessageBlocks);
}

// The sender's own addresses and descriptors mean nothing here, and must never be freed or closed.
void forgetSenderResources(KelmMsgBase& head) {
    std::fill(std::begin(head.fd), std::end(head.fd), -1);
    std::fill(std::begin(head.data), std::end(head.data), 0);
    std::fill(std::begin(head.innerBuffer), std::end(head.innerBuffer), 0);
    head.innerBufferNum = 0;
}

bool kelmReceiveMessageBase(IPC::ConnectionBase& connection, KelmMsgBase& head) {
    connection.read(&head, sizeof(head), nullptr);
    if (head.type > KELM_MESSAGE_EVT_END) {
        LOG_ERROR("Error: invalid kelm message type: %d", head.type);
        return false;
    }
    if (head.size != KelmMessageSize[head.type]) {
        LOG_ERROR("Error: unmatched kelm message size: actual=%lu", head.size);
        return false;
    }
    swapPreparedBuffers(head);
    forgetSenderResources(head);
    return true;
}

// A type without a record has nothing to read, which the connection refuses as an argument.
void receiveBody(IPC::ConnectionBase& connection, KelmMsgBase* message) {
    const int left = static_cast<int>(message->size) - static_cast<int>(sizeof(KelmMsgBase));
    connection.read(message + 1, left, nullptr);
}

// All that are announced leave the stream; the record has room for the first ones.
void receiveDescriptors(IPC::ConnectionBase& connection, KelmMsgBase* message) {
    const uint32_t count = std::exchange(message->fdNum, 0);
    for (uint32_t i = 0; i < count; ++i) {
        int fd = -1;
        connection.read(fd);
        UniqueFd received(fd);
        if (i >= kMaxMessageFds) continue;
        message->fd[i] = received.release();
        message->fdNum = i + 1;
    }
}

void receiveBlock(IPC::ConnectionBase& connection, void* target, uint32_t size) {
    char* next = static_cast<char*>(target);
    while (size > 0) {
        const uint32_t count = std::min(size, kMaxReadBytes);
        connection.read(next, static_cast<int>(count), nullptr);
        next += count;
        size -= count;
    }
}

void discardBlock(IPC::ConnectionBase& connection, uint32_t size) {
    char dropped[16384];
    while (size > 0) {
        const auto count = std::min<uint32_t>(size, sizeof(dropped));
        connection.read(dropped, static_cast<int>(count), nullptr);
        size -= count;
    }
}

bool receiveBlocks(IPC::ConnectionBase& connection, KelmMsgBase* message,
                   PreparedBuffers prepared) {
    for (uint32_t i = 0; i < message->dataNum; ++i) {
        if (i >= kMaxMessageBlocks) return false;
        if (prepared.empty() && !kelmKeepsBlock(*message, i)) {
            discardBlock(connection, static_cast<uint32_t>(message->dataSize[i]));
            continue;
        }
        void* const target = getBufferForRecv(message, i, prepared);
        if (target == nullptr) return false;
        receiveBlock(connection, target, static_cast<uint32_t>(message->dataSize[i]));
        message->data[i] = reinterpret_cast<uint64_t>(target);
    }
    return true;
}

// All that follows the head.
bool receiveRest(IPC::ConnectionBase& connection, KelmMsgBase* message, PreparedBuffers prepared) {
    receiveBody(connection, message);
    receiveDescriptors(connection, message);
    if (!receiveBlocks(connection, message, prepared)) return false;
    if (!checkMessage(*message, message->size)) {
        LOG_ERROR("Error: malformed message %s", KelmMsgTypeStr[message->type]);
        return false;
    }
    return unflatMessage(message) == 0;
}

MessagePtr receive(const std::shared_ptr<IPC::ConnectionBase>& connection,
                   PreparedBuffers prepared) {
    KelmMsgBase head;
    if (!kelmReceiveMessageBase(*connection, head)) {
        LOG_ERROR("Error: recv KelmMsgBase failed");
        return nullptr;
    }
    const uint64_t size = std::max<uint64_t>(head.size, sizeof(head));
    MessagePtr message(messagePool::allocate(size));
    if (!message) {
        LOG_ERROR("Error: alloc %lu bytes buffer failed", size);
        return nullptr;
    }
    std::memcpy(static_cast<void*>(message.get()), &head, sizeof(head));
    messagePool::setOwnsDescriptors(message.get());
    messagePool::setOrigin(message.get(), connection);
    return receiveRest(*connection, message.get(), prepared) ? std::move(message) : nullptr;
}

}  // namespace

KelmMsgBase* kelmReceiveMessage(int connectionId, PreparedBuffers prepared) {
    try {
        const auto connection = IPC::ConnectionBase::getConnectionById(connectionId);
        return receive(connection, prepared).release();
    } catch (const std::exception& e) {
        LOG_ERROR("%s", e.what());
        return nullptr;
    }
}

int kelmReceiveMessage(int connectionId, KelmMsgBase* message, size_t size,
                       PreparedBuffers prepared) {
    CR_ASSERT(message);
    CR_ASSERT(size >= sizeof(KelmMsgBase));
    bool headReceived = false;
    try {
        const auto connection = IPC::ConnectionBase::getConnectionById(connectionId);
        headReceived = kelmReceiveMessageBase(*connection, *message);
        if (!headReceived) return -1;
        if (message->size > size) {
            LOG_ERROR(
                "Error: Buffer (size=%ld Byte) to recevie is not big enough. (Required %ld Bytes).",
                size, message->size);
            return -1;
        }
        if (receiveRest(*connection, message, prepared)) return static_cast<int>(message->size);
    } catch (const std::exception& e) {
        LOG_ERROR("%s", e.what());
    }
    if (headReceived) kelmReleaseContents(message);
    return -1;
}

}  // namespace kelm
