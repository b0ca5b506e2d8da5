#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <memory>

#include "utils/PeerDescriptor.h"

namespace IPC {

constexpr size_t kDescriptorBytes = sizeof(int);  // the data that accompanies a descriptor

// What the control data of a received segment looked like; for the report of a missing descriptor.
struct ControlReport {
    size_t cmsgLen = 0;
    int cmsgLevel = 0;
    int cmsgType = 0;
    size_t controlLen = 0;
    int numFd = 0;
};

// A descriptor on its way: some of its bytes may have come already.
struct IncomingDescriptor {
    size_t leftBytes = kDescriptorBytes;
    kelm::PeerFd fd;
    ControlReport report;
};

// Bytes that one system call brought and that are not read yet. The kernel ends what it
// returns with the first segment that carries a descriptor, so at most one descriptor is held, and
// it belongs to the last byte. Reading past that byte without asking for the descriptor closes it.
//
// Threads: the connection's reader, but for size(). Owns: the descriptor.
class ReceiveBuffer {
 public:
    static constexpr size_t kCapacity = 16384;

    // Unread bytes.
    size_t size() const { return m_unread.load(std::memory_order_seq_cst); }
    // Receives into the empty buffer; `flags` and the result are the system call's.
    ssize_t fill(int socket, int flags);
    // Takes up to `size` bytes, copied to `target` unless that is null; returns their number.
    size_t take(void* target, size_t size);
    // Takes bytes of a descriptor; one that came with them passes to `incoming`, unless it has one.
    void takeDescriptor(IncomingDescriptor& incoming);

 private:
    size_t advance(void* target, size_t size);
    void readControl(struct msghdr& message);

    std::unique_ptr<std::byte[]> m_bytes;  // made at the first use: listeners need none
    size_t m_begin = 0;
    std::atomic<size_t> m_unread{0};  // atomic: the poller looks at it
    kelm::PeerFd m_descriptor;
    ControlReport m_report;
};

}  // namespace IPC
