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

// -1 for what the connection raises, logged.
template <class Write>
int attempt(Write write) {
    try {
        write();
        return 0;
    } catch (const std::exception& e) {
        const int error = errno;  // the caller's log names it, which logging here may change
        LOG_ERROR("%s", e.what());
        errno = error;
        return -1;
    }
}

}  // namespace

// The look-up comes once: the share that it gives keeps the number from being given to another.
MessageWriter::MessageWriter(int connectionId)
    : m_connectionId(connectionId),
      m_connection(IPC::ConnectionBase::findConnection(connectionId)) {}

MessageWriter::~MessageWriter() = default;

int MessageWriter::append(KelmMsgBase* message, bool mayWait) {
    CR_ASSERT(message);
    if (flatMessage(message) != 0) return -1;
    // What was collected is written before a record that cannot wait: the order stays.
    const bool collectable = isCollectable(*message);
    const bool isFull = mayWait && !hasRoomFor(message->size);
    if ((!collectable || isFull) && flush() != 0) return -1;
    if (!collectable) return send([&] { sendFlatMessage(*m_connection, *message); });
    if (m_bytes.capacity() == 0) m_bytes.reserve(kCapacity);
    const auto* const bytes = reinterpret_cast<const std::byte*>(message);
    m_bytes.insert(m_bytes.end(), bytes, bytes + message->size);
    return 0;
}

int MessageWriter::flush() {
    if (m_bytes.empty()) return 0;
    const int result =
        send([&] { m_connection->write(m_bytes.data(), static_cast<int>(m_bytes.size())); });
    m_bytes.clear();  // also if it has failed: half of it may be out
    return result;
}

MessageWriter::Result MessageWriter::tryFlush() {
    if (m_bytes.empty()) return DONE;
    if (!m_connection) return flush() == 0 ? DONE : FAILED;  // which logs that it is not there
    // The kernel takes so much whole or not at all; of more it could take a part, and the rest
    // would have to be waited for.
    if (m_bytes.size() > kCapacity) return WOULD_WAIT;
    Mutex& mutex = m_connection->writeMutex();
    if (!mutex.tryLock()) return WOULD_WAIT;
    MutexLock lock(mutex, std::adopt_lock);
    bool written = true;
    const int result = attempt([&] {
        written = m_connection->tryWrite(m_bytes.data(), static_cast<int>(m_bytes.size()));
    });
    if (!written) return WOULD_WAIT;
    m_bytes.clear();
    return result == 0 ? DONE : FAILED;
}

template <class Write>
int MessageWriter::send(Write write) {
    if (!m_connection) {
        LOG_ERROR("Can't find connection for fd(%d)", m_connectionId);
        return -1;
    }
    MutexLock lock(m_connection->writeMutex());
    return attempt(write);
}

}  // namespace kelm
