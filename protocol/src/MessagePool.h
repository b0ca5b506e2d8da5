#pragma once

#include <cstddef>
#include <memory>

#include "protocol/src/KelmMessage.h"

// Memory of message records: a few size classes with bounded free lists, so that a steady stream
// of messages allocates nothing.
//
// Threads: any. Locks: one leaf per size class.
namespace kelm::messagePool {

// Memory for a record of `size` bytes, not zeroed, owning no descriptors; null if there is none.
KelmMsgBase* allocate(size_t size);
void release(KelmMsgBase* message);

// Whether the descriptors in the record's `fd` array are closed with it.
bool ownsDescriptors(const KelmMsgBase* message);
void setOwnsDescriptors(KelmMsgBase* message);

// The connection (an IPC::ConnectionBase) that the record came on, or that an answer is for; kept
// until the record is released, so that meanwhile the connection's number is given to no other.
const std::shared_ptr<const void>& origin(const KelmMsgBase* message);
void setOrigin(KelmMsgBase* message, std::shared_ptr<const void> connection);

}  // namespace kelm::messagePool
