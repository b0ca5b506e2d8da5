#include "protocol/src/MessageWriter.h"

#include <cerrno>
#include <cstring>
#include <exception>
#include <string>
#include <utility>

#include "protocol/src/KelmProtocol.h"
#include "protocol/src/MessageSend.h"
#include "utils/ErrorHelper.h"
#include "utils/IPC.h"
#include "utils/Log.h"

namespace kelm {

namespace {

// Whether the flat message is its record alone and small enough to wait for others.
bool isCollectable(const KelmMsgBase& message) {
    return message.fdNum == 0 && message.dataNum == 0 && message.size <= MessageWriter::kCapacity;
}

}  // namespace

// The look-up comes once: the share that it gives keeps the number from being given to another.
MessageWriter::MessageWriter(int connectionId)
    : m_connectionId(connectionId),
      m_connection(IPC::ConnectionBase::findConnection(connectionId)) {}

MessageWriter::~MessageWriter() = default;

int MessageWriter::append(KelmMsgBase* message) {
    CR_ASSERT(message);
    if (flatMessage(message) != 0) return -1;
    // What was collected is written before a record that cannot wait: the order stays.
    const bool collectable = isCollectable(*message);
    if ((!collectable || m_used + message->size > kCapacity) && flush() != 0) return -1;
    if (!collectable) return send([&] { sendFlatMessage(*m_connection, *message); });
    if (!m_bytes) m_bytes = std::make_unique_for_overwrite<std::byte[]>(kCapacity);
    std::memcpy(m_bytes.get() + m_used, message, message->size);
    m_used += message->size;
    return 0;
}

int MessageWriter::flush() {
    const size_t size = std::exchange(m_used, 0);  // also if it fails: half of it may be out
    if (size == 0) return 0;
    return send([&] { m_connection->write(m_bytes.get(), static_cast<int>(size)); });
}

template <class Write>
int MessageWriter::send(Write write) {
    if (!m_connection) {
        LOG_ERROR("Can't find connection for fd(%d)", m_connectionId);
        return -1;
    }
    try {
        MutexLock lock(m_connection->writeMutex());
        write();
        return 0;
    } catch (const std::exception& e) {
        const int error = errno;  // the caller's log names it, which logging here may change
        LOG_ERROR("%s", e.what());
        errno = error;
        return -1;
    }
}

}  // namespace kelm
