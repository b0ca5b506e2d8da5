#include "protocol/src/MessageAssembler.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <iterator>
#include <utility>

#include "protocol/src/MessagePool.h"
#include "utils/ConnectionBase.h"
#include "utils/Log.h"

namespace kelm {

namespace {

constexpr uint64_t kVisitBytes = 256 * 1024;  // read at most in one receiveArrived()
// What a descriptor counts for: passing one costs the kernel as much as copying about so much.
constexpr uint64_t kDescriptorCost = 1024;

// A peer writes its own prepared buffers into `recv...` and echoes those of this side in
// `peerRecv...`: on reception the two change places.
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

// Before any memory is taken: afterwards the peer has decided how much.
bool checkHead(const KelmMsgBase& head) {
    if (head.type > KELM_MESSAGE_EVT_END) {
        LOG_ERROR("Error: invalid kelm message type: %d", head.type);
    } else if (head.size != KelmMessageSize[head.type]) {
        LOG_ERROR("Error: unmatched kelm message size: actual=%lu", head.size);
    } else {
        return true;
    }
    LOG_ERROR("Error: recv KelmMsgBase failed");
    return false;
}

}  // namespace

// In the order of the wire. A step that has run dry is continued by the next call.
const MessageAssembler::Step MessageAssembler::kSteps[] = {
    &MessageAssembler::receiveHead,        &MessageAssembler::receiveBody,
    &MessageAssembler::receiveDescriptors, &MessageAssembler::receiveBlocks,
    &MessageAssembler::checkWhole,
};

MessageAssembler::State MessageAssembler::receiveArrived(IPC::ConnectionBase& connection) {
    m_wait = false;
    m_allowance = kVisitBytes;
    return advance(connection);
}

// Without an allowance: there is an end to what a peer that has hung up has sent.
MessageAssembler::State MessageAssembler::receiveRest(IPC::ConnectionBase& connection) {
    m_wait = false;
    m_allowance = UINT64_MAX;
    return advance(connection);
}

MessageAssembler::State MessageAssembler::receiveWhole(IPC::ConnectionBase& connection) {
    m_wait = true;
    m_allowance = UINT64_MAX;
    return advance(connection);
}

MessageAssembler::State MessageAssembler::advance(IPC::ConnectionBase& connection) {
    State state = State::kWhole;
    try {
        while (m_step < std::size(kSteps)) {
            const Step step = kSteps[m_step];
            state = (this->*step)(connection);
            if (state != State::kWhole) break;
            ++m_step;
        }
        connection.noteUnread();  // bytes that were read ahead raise no event of the socket
    } catch (const std::exception& e) {
        LOG_ERROR("%s", e.what());
        state = State::kFailed;
    }
    if (state == State::kFailed) reset();  // closes the descriptors that have come
    return state;
}

// The origin is set here and not before: a message that fails on the way needs no connection.
MessagePtr MessageAssembler::take(std::shared_ptr<IPC::ConnectionBase> connection) {
    MessagePtr message = std::move(m_message);
    messagePool::setOrigin(message.get(), std::move(connection));
    reset();
    return message;
}

// Also drops a message that is half there, with the descriptors that have come.
void MessageAssembler::reset() {
    m_step = 0;
    m_filled = 0;
    m_message.reset();
    m_incomingFd = {};
    m_block = 0;
    m_target = nullptr;
    m_isDropped = false;
}

// `m_filled` tells how far the part is, so that a later call continues where this one has run dry.
bool MessageAssembler::fill(IPC::ConnectionBase& connection, void* part, size_t size) {
    while (m_filled < size) {
        const auto left = static_cast<uint32_t>(size - m_filled);
        const int count = connection.readArrived(static_cast<char*>(part) + m_filled,
                                                 static_cast<int>(left), left, m_wait);
        if (count == 0) return false;
        m_filled += static_cast<uint64_t>(count);
    }
    m_filled = 0;
    return true;
}

MessageAssembler::State MessageAssembler::receiveHead(IPC::ConnectionBase& connection) {
    if (!fill(connection, &m_head, sizeof(m_head))) return State::kWaiting;
    if (!checkHead(m_head)) return State::kFailed;
    // The limit is that of a caller's own record; a record that is made here has none.
    if (m_head.size > m_sizeLimit) {
        LOG_ERROR(
            "Error: Buffer (size=%ld Byte) to recevie is not big enough. (Required %ld Bytes).",
            m_sizeLimit, m_head.size);
        return State::kFailed;
    }
    return allocate() ? State::kWhole : State::kFailed;
}

// Without memory for the record nobody knows who asks, so that no answer could reach him; that the
// connection ends tells him at least at once.
bool MessageAssembler::allocate() {
    const uint64_t size = std::max<uint64_t>(m_head.size, sizeof(m_head));
    m_message.reset(messagePool::allocate(size));
    if (!m_message) {
        LOG_ERROR("Error: alloc %lu bytes buffer failed", size);
        return false;
    }
    swapPreparedBuffers(m_head);
    forgetSenderResources(m_head);
    // From here on the record has the descriptors that have come, and no others.
    m_announcedFds = std::exchange(m_head.fdNum, 0);
    m_receivedFds = 0;
    std::memcpy(static_cast<void*>(m_message.get()), &m_head, sizeof(m_head));
    messagePool::setOwnsDescriptors(m_message.get());
    return true;
}

MessageAssembler::State MessageAssembler::receiveBody(IPC::ConnectionBase& connection) {
    const auto size = static_cast<int64_t>(m_message->size) - static_cast<int64_t>(sizeof(m_head));
    // A type without a record has nothing to read, which the connection refuses as an argument.
    if (size <= 0)
        (void)connection.readArrived(m_message.get() + 1, static_cast<int>(size), 0, true);
    return fill(connection, m_message.get() + 1, static_cast<size_t>(size)) ? State::kWhole
                                                                            : State::kWaiting;
}

// All that are announced are read, or what follows would be taken for them; those that the record
// has no room for are closed.
MessageAssembler::State MessageAssembler::receiveDescriptors(IPC::ConnectionBase& connection) {
    while (m_receivedFds < m_announcedFds) {
        if (m_allowance < kDescriptorCost) return State::kWaiting;
        if (!connection.readArrived(m_incomingFd, m_wait)) return State::kWaiting;
        m_allowance -= kDescriptorCost;
        PeerFd received = std::exchange(m_incomingFd, {}).fd;
        if (m_receivedFds++ >= kMaxMessageFds) continue;
        m_message->fd[m_message->fdNum++] = received.release();
    }
    return State::kWhole;
}

MessageAssembler::State MessageAssembler::receiveBlocks(IPC::ConnectionBase& connection) {
    for (; m_block < m_message->dataNum; ++m_block) {
        if (m_block >= kMaxMessageBlocks) return State::kFailed;
        if (const State state = receiveBlock(connection); state != State::kWhole) return state;
        m_filled = 0;
        m_target = nullptr;
        m_isDropped = false;
    }
    return State::kWhole;
}

MessageAssembler::State MessageAssembler::receiveBlock(IPC::ConnectionBase& connection) {
    if (m_target == nullptr && !m_isDropped && !openBlock()) return State::kFailed;
    const State state = m_isDropped ? dropBlock(connection) : fillBlock(connection);
    if (state == State::kWhole) {
        m_message->data[m_block] = reinterpret_cast<uint64_t>(m_target);
    }
    return state;
}

// Onto the stack, piece by piece: a block of any size costs no memory, only the peer's time.
MessageAssembler::State MessageAssembler::dropBlock(IPC::ConnectionBase& connection) {
    char dropped[IPC::ReceiveBuffer::kCapacity];
    // The lower 32 bits, as in all uses of a size here: no block is larger.
    const uint64_t size = static_cast<uint32_t>(m_message->dataSize[m_block]);
    while (m_filled < size) {
        const uint64_t part = std::min({size - m_filled, m_allowance, sizeof(dropped)});
        if (part == 0 || !readPart(connection, dropped, part, size - m_filled)) {
            return State::kWaiting;
        }
    }
    return State::kWhole;
}

bool MessageAssembler::readPart(IPC::ConnectionBase& connection, char* target, uint64_t part,
                                uint64_t left) {
    const int count =
        connection.readArrived(target, static_cast<int>(part), static_cast<uint32_t>(left), m_wait);
    m_filled += static_cast<uint64_t>(count);
    m_allowance -= static_cast<uint64_t>(count);
    return count != 0;
}

// An inner buffer starts with room for one piece and grows as bytes come; a prepared one has its
// size.
bool MessageAssembler::openBlock() {
    // With prepared buffers the caller is a client, which takes what it has asked for.
    m_isDropped = m_prepared.empty() && !kelmKeepsBlock(*m_message, m_block);
    if (m_isDropped) return true;
    if (!checkPreparedSize(*m_message, m_block)) return false;
    const uint32_t innerBefore = m_message->innerBufferNum;
    m_target = static_cast<char*>(getBufferForRecv(m_message.get(), m_block, m_prepared));
    const uint64_t size = static_cast<uint32_t>(m_message->dataSize[m_block]);
    const bool grows = m_message->innerBufferNum != innerBefore;
    m_room = grows ? std::min<uint64_t>(size, kFirstPieceBytes) : size;
    m_isDropped = m_target == nullptr;
    return true;
}

// Doubled, so that copying stays in proportion to the bytes that really came. What a block without
// memory has is given back at once: others need it.
bool MessageAssembler::growBlock() {
    const uint64_t size = static_cast<uint32_t>(m_message->dataSize[m_block]);
    m_room = std::min(size, 2 * m_room);
    void* const larger = growInnerBuffer(m_message.get(), m_room);
    m_isDropped = larger == nullptr;
    if (m_isDropped) (void)kelmTakeBlock(m_message.get(), reinterpret_cast<uint64_t>(m_target));
    m_target = static_cast<char*>(larger);
    return !m_isDropped;
}

MessageAssembler::State MessageAssembler::fillBlock(IPC::ConnectionBase& connection) {
    const uint64_t size = static_cast<uint32_t>(m_message->dataSize[m_block]);
    while (m_filled < size) {
        if (m_filled == m_room && !growBlock()) return dropBlock(connection);
        const uint64_t part = std::min({m_room - m_filled, m_allowance, kVisitBytes});
        if (part == 0 || !readPart(connection, m_target + m_filled, part, size - m_filled)) {
            return State::kWaiting;
        }
    }
    return State::kWhole;
}

// Last: nothing of the message is used before, but the head's counts, which are cut where they are.
MessageAssembler::State MessageAssembler::checkWhole(IPC::ConnectionBase&) {
    if (!checkMessage(*m_message, m_message->size)) {
        LOG_ERROR("Error: malformed message %s", KelmMsgTypeStr[m_message->type]);
        return State::kFailed;
    }
    return unflatMessage(m_message.get()) == 0 ? State::kWhole : State::kFailed;
}

}  // namespace kelm
