#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "protocol/src/KelmMessage.h"
#include "protocol/src/MessagePtr.h"
#include "utils/UniqueMalloc.h"

// Sending and receiving of the client protocol.
//
// Ownership of the descriptors of a message:
// - A message built here to be sent owns none. kelmSendMessage duplicates them into the peer, and
//   the sender closes its own when it likes.
// - A received message owns what its `fd` array names; -1 is no descriptor. The buffers of an
//   infer request and `testFd` repeat those numbers without owning them. kelmReleaseMessage closes
//   what is still in the array.
// - takeTaskBuffers moves the three buffers of an infer request, with their descriptors, to the
//   caller, which passes them on to KelmTaskParam::create. What is not taken is closed with the
//   message.
// - A descriptor that no buffer wants (a role that does not exist, a role named twice, one more
//   than the array has room for) is closed while the message is being received.
// - Received into a caller's record, descriptors and inner buffers are the caller's: see
//   kelmReleaseContents.
//
// Threads: any; one reader per connection at a time. Each sending of a message is a turn of its own
// among the writers of the connection.

namespace kelm {

struct PeerCredentials;

// A buffer that this process prepared for blocks from the peer. A message that names a receive
// address is believed only if the address is in the receiver's own list.
struct PreparedBuffer {
    void* address;
    uint64_t size;
};
using PreparedBuffers = std::span<const PreparedBuffer>;

// A zeroed record of a type with `type` and `size` set; null for a type without a record.
KelmMsgBase* kelmAllocMessage(KelmMsgType type);

// Lets an answer keep the connection that its request came on: until the answer is released, the
// number of that connection is given to no other. Both are records of this library's making.
void kelmShareOrigin(const KelmMsgBase& request, KelmMsgBase& answer);

// The credentials of the request's sender; those of this process for a record that came over no
// connection. Never null.
std::shared_ptr<const PeerCredentials> kelmGetPeer(const KelmMsgBase& request);

// 0, or -1 after any failure, which is logged. The message stays the caller's.
int kelmSendMessage(int connectionId, KelmMsgBase* message);

// The next message, which the caller owns; null after any failure, which is logged. The connection
// is left for the caller to close. A block for which there was no memory is no failure: its address
// is 0, and in a request for a graph `graphData` with it, beside a `graphDataSize` that is not.
KelmMsgBase* kelmReceiveMessage(int connectionId, PreparedBuffers prepared = {});

// The same into the caller's record of `size` bytes, of which there are at least 488. Returns the
// message's size, 0 or below on failure; nothing is left to release then.
int kelmReceiveMessage(int connectionId, KelmMsgBase* message, size_t size,
                       PreparedBuffers prepared = {});

// Frees the inner buffers and closes the descriptors of a received record in a caller's memory.
void kelmReleaseContents(KelmMsgBase* message);

// Of a received message that has no use for any; the record keeps none.
void kelmCloseDescriptors(KelmMsgBase* message);

// Moves the three buffers out of a received infer request: their descriptors are the caller's now.
void takeTaskBuffers(KelmMsgReqInferTask& message, KelmBuffer& input, KelmBuffer& output,
                     KelmBuffer& aux);

// Whether a record of `size` bytes is one that the rest of the system may look into: type, size,
// counts, descriptors and blocks. Pure; called for each received message before
// anything of it is used.
bool checkMessage(const KelmMsgBase& message, size_t size);

// Between the fields of a message and its lists of descriptors and blocks, by type. 0, or -1 for a
// null message (errno EINVAL) and for one that its type does not allow.
int flatMessage(KelmMsgBase* message);
int unflatMessage(KelmMsgBase* message);

// Whether block `index` of a received message is of any use, by the types of message and
// block alone: of a create request the last graph binary, of any other message none. Pure; asked
// before the block arrives. What is not kept is read off the stream and needs no memory.
bool kelmKeepsBlock(const KelmMsgBase& message, uint32_t index);
// Moves the inner buffer at `address` out of a received message, so that it can be freed before the
// message is; null if the message has none there.
UniqueMalloc<char> kelmTakeBlock(KelmMsgBase* message, uint64_t address);

// Whether block `index` of a message that is being received fits the buffer that was prepared for
// its type, if one was; false, logged, refuses the message.
bool checkPreparedSize(const KelmMsgBase& message, uint32_t index);
// The memory for the block, null if there is none or it is refused. An inner buffer is made with
// room for its first piece only.
void* getBufferForRecv(KelmMsgBase* message, uint32_t index, PreparedBuffers prepared = {});
constexpr uint32_t kFirstPieceBytes = 256 * 1024;
// A block that is freed with the message, with free(); null if the message has five already.
void* allocInnerBuffer(KelmMsgBase* message, size_t size);
// Gives the latest of these blocks more room, with its bytes, perhaps elsewhere; null, and the
// block as it was, if there is no memory.
void* growInnerBuffer(KelmMsgBase* message, size_t size);

}  // namespace kelm
