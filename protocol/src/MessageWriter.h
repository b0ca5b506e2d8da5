#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "protocol/src/KelmMessage.h"
#include "utils/NonCopyable.h"

namespace IPC {
class ConnectionBase;
}

namespace kelm {

// Collects records for one connection and writes several with one system call: the same bytes in
// the same order. Records with descriptors or blocks, and those too large to collect, are written
// at once, after what was collected.
//
// Threads: one; others may write to the connection too, between two writes of this one. Owns: a
// share of the connection, so that its number is given to no other while records wait here. What is
// not flushed at destruction is dropped.
class MessageWriter : public NonCopyable {
 public:
    static constexpr size_t kCapacity = 16384;

    explicit MessageWriter(int connectionId);
    ~MessageWriter();

    // The message stays the caller's. -1 if a write failed, with errno of its cause; what was
    // collected is dropped then. A caller that must not wait has what finds no room collected, too.
    int append(KelmMsgBase* message, bool mayWait = true);
    // Whether a record of that size can be appended without writing what was collected before.
    bool hasRoomFor(uint64_t size) const { return m_bytes.size() + size <= kCapacity; }
    // Writes what is collected.
    int flush();
    // The same for a caller that must not wait, for the peer or for another writer: then all stays
    // collected.
    enum Result { DONE, WOULD_WAIT, FAILED };
    Result tryFlush();
    bool empty() const { return m_bytes.empty(); }

 private:
    // Runs the writing in this writer's turn; -1 also for a connection that is not there.
    template <class Write>
    int send(Write write);

    const int m_connectionId;
    const std::shared_ptr<IPC::ConnectionBase> m_connection;  // null: the number had none
    std::vector<std::byte> m_bytes;
};

}  // namespace kelm
