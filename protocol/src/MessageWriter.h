#pragma once

#include <cstddef>
#include <memory>

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
    // collected is dropped then.
    int append(KelmMsgBase* message);
    // Whether a record of that size can be appended without writing what was collected before.
    bool hasRoomFor(uint64_t size) const { return m_used + size <= kCapacity; }
    // Writes what is collected.
    int flush();
    bool empty() const { return m_used == 0; }

 private:
    // Runs the writing; -1 for a connection that is not there and for what it raises, logged.
    template <class Write>
    int send(Write write);

    const int m_connectionId;
    const std::shared_ptr<IPC::ConnectionBase> m_connection;  // null: the number had none
    std::unique_ptr<std::byte[]> m_bytes;
    size_t m_used = 0;
};

}  // namespace kelm
