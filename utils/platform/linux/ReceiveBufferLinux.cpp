#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "utils/ReceiveBuffer.h"

namespace IPC {

namespace {

constexpr size_t kMaxFdsPerSegment = 253;  // the kernel's limit; a peer may send them all

}  // namespace

// The room for control data is that of the most descriptors a segment may carry: what does not fit
// would be dropped by the kernel.
ssize_t ReceiveBuffer::fill(int socket, int flags) {
    if (!m_bytes) m_bytes = std::make_unique_for_overwrite<std::byte[]>(kCapacity);
    alignas(cmsghdr) char control[CMSG_SPACE(kMaxFdsPerSegment * sizeof(int))];
    iovec part = {m_bytes.get(), kCapacity};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    const ssize_t count = ::recvmsg(socket, &message, MSG_CMSG_CLOEXEC | flags);
    if (count < 0) return count;
    readControl(message);
    m_begin = 0;
    m_unread.store(static_cast<size_t>(count));
    return count;
}

// Keeps the first descriptor and closes any further ones.
void ReceiveBuffer::readControl(msghdr& message) {
    m_descriptor.reset();
    m_report = ControlReport{};
    m_report.controlLen = message.msg_controllen;
    for (cmsghdr* cmsg = CMSG_FIRSTHDR(&message); cmsg != nullptr;
         cmsg = CMSG_NXTHDR(&message, cmsg)) {
        m_report.cmsgLen = cmsg->cmsg_len;
        m_report.cmsgLevel = cmsg->cmsg_level;
        m_report.cmsgType = cmsg->cmsg_type;
        if (cmsg->cmsg_level != SOL_SOCKET || cmsg->cmsg_type != SCM_RIGHTS) continue;
        const size_t count = (cmsg->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int fd = -1;
            std::memcpy(&fd, CMSG_DATA(cmsg) + i * sizeof(int), sizeof(int));
            kelm::PeerFd received(fd);
            if (!m_descriptor) m_descriptor = std::move(received);
            ++m_report.numFd;
        }
    }
}

size_t ReceiveBuffer::advance(void* target, size_t size) {
    const size_t unread = m_unread.load();
    const size_t count = std::min(size, unread);
    if (target != nullptr && count != 0) std::memcpy(target, m_bytes.get() + m_begin, count);
    m_begin += count;
    m_unread.store(unread - count);
    return count;
}

// The descriptor belongs to the last byte: if that is read as plain data, it is closed.
size_t ReceiveBuffer::take(void* target, size_t size) {
    const size_t count = advance(target, size);
    if (m_unread.load() == 0) m_descriptor.reset();
    return count;
}

void ReceiveBuffer::takeDescriptor(IncomingDescriptor& incoming) {
    const size_t count = advance(nullptr, incoming.leftBytes);
    incoming.leftBytes -= count;
    // The descriptor came with the last byte of the buffer: while bytes are left, those just read
    // came without it.
    if (count == 0 || m_unread.load() != 0) return;
    if (!incoming.fd) {
        incoming.report = m_report;
        incoming.fd = std::move(m_descriptor);
    }
    m_descriptor.reset();
}

}  // namespace IPC
