#pragma once

#include <cstddef>

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

}  // namespace kelm::messagePool
