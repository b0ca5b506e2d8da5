#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "protocol/src/KelmProtocol.h"
#include "utils/NonCopyable.h"
#include "utils/ReceiveBuffer.h"

namespace IPC {
class ConnectionBase;
}

namespace kelm {

// Puts the messages of one connection together, in whatever pieces they come: head, body,
// descriptors, blocks. A block is read straight into its final memory, which grows with the bytes
// that come, so that a size which a peer only announces costs nothing.
//
// Threads: the connection's reader. Owns: what it has of a message; borrows the prepared buffers.
class MessageAssembler : public NonCopyable {
 public:
    enum class State { kWaiting, kWhole, kFailed };

    // A record of more than `sizeLimit` bytes is refused.
    explicit MessageAssembler(PreparedBuffers prepared = {}, uint64_t sizeLimit = UINT64_MAX)
        : m_prepared(prepared), m_sizeLimit(sizeLimit) {}

    // Takes what has arrived, and no more than a quarter of a megabyte or so: a peer that sends
    // without end must not keep the thread for itself. kWaiting: call again when more has come, or
    // at once. kFailed, after the reason was logged: the connection is left for the caller to
    // close.
    State receiveArrived(IPC::ConnectionBase& connection);
    // The same until nothing is there: for a peer that has hung up, so that no more can come.
    State receiveRest(IPC::ConnectionBase& connection);
    // Waits until the message is whole.
    State receiveWhole(IPC::ConnectionBase& connection);

    // After kWhole: the message, which keeps `connection` from losing its number until it is
    // released. The next one can be received.
    MessagePtr take(std::shared_ptr<IPC::ConnectionBase> connection);
    // Whether some bytes of a message have come, and some have not.
    bool isInsideMessage() const { return m_step != 0 || m_filled != 0; }

 private:
    using Step = State (MessageAssembler::*)(IPC::ConnectionBase&);
    static const Step kSteps[];

    State advance(IPC::ConnectionBase& connection);
    State receiveHead(IPC::ConnectionBase& connection);
    State receiveBody(IPC::ConnectionBase& connection);
    State receiveDescriptors(IPC::ConnectionBase& connection);
    State receiveBlocks(IPC::ConnectionBase& connection);
    State checkWhole(IPC::ConnectionBase& connection);
    bool allocate();
    State receiveBlock(IPC::ConnectionBase& connection);
    // Reads off the stream what is left of a block that is of no use, or has no memory.
    State dropBlock(IPC::ConnectionBase& connection);
    bool openBlock();  // false refuses it
    // Gives a block more room; false if there is no memory for it.
    bool growBlock();
    State fillBlock(IPC::ConnectionBase& connection);
    // Some of the next `part` bytes of a block of which so many are left; false if none have come.
    bool readPart(IPC::ConnectionBase& connection, char* target, uint64_t part, uint64_t left);
    // False while some of the part's bytes have not come.
    bool fill(IPC::ConnectionBase& connection, void* part, size_t size);
    void reset();

    const PreparedBuffers m_prepared;
    const uint64_t m_sizeLimit;
    bool m_wait = false;       // in a read, until something has come
    uint64_t m_allowance = 0;  // bytes that may still be read in this call

    size_t m_step = 0;      // what is being received, an index into kSteps
    uint64_t m_filled = 0;  // bytes of the head, the body or the block
    KelmMsgBase m_head;
    MessagePtr m_message;  // once there is a head
    uint32_t m_announcedFds = 0;
    uint32_t m_receivedFds = 0;
    IPC::IncomingDescriptor m_incomingFd;
    uint32_t m_block = 0;      // the one that is being received
    char* m_target = nullptr;  // its memory, null until it has some
    uint64_t m_room = 0;       // bytes of that
    bool m_isDropped = false;  // the block
};

}  // namespace kelm
