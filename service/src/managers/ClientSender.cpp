#include "managers/ClientSender.h"

#include <cerrno>
#include <system_error>

#include "utils/IPC.h"
#include "utils/Log.h"
#include "utils/PeerCredentials.h"

namespace kelm {

namespace {

// How many messages of any size a client that does not read may leave waiting.
constexpr uint64_t kMaxQueuedMessages = 200;

}  // namespace

ClientSender::ClientSender(uint64_t clientId, int socket, bool debugProcess)
    : m_clientId(clientId),
      m_debugProcess(debugProcess),
      m_connection(IPC::ConnectionBase::findConnection(socket)),
      m_writer(socket),
      m_backlog(kMaxQueuedMessages),
      m_pool("ResDp" + std::to_string(clientId), 1, kMaxQueuedMessages) {}

ClientSender::~ClientSender() = default;

bool ClientSender::isOfUser(uid_t user) const {
    const auto peer = m_connection ? m_connection->getPeer() : nullptr;
    return peer && peer->user == user;
}

void ClientSender::write(KelmMsgBase& message) {
    m_onThread.assertHeld();
    if (!m_writer.hasRoomFor(message.size)) flush();
    m_gathered.emplace_back(message);
    if (isOpen() && m_writer.append(&message) != 0) {
        m_failure = std::generic_category().message(errno);
    }
    if (!m_failure.empty() || m_writer.empty()) settle();
}

void ClientSender::flush() {
    m_onThread.assertHeld();
    if (m_gathered.empty()) return;
    if (isOpen() && m_writer.flush() != 0) m_failure = std::generic_category().message(errno);
    settle();
}

bool ClientSender::isOpen() {
    if (m_failure.empty() && (!m_connection || m_connection->nativeHandle() < 0)) {
        m_failure = "closed";
    }
    return m_failure.empty();
}

void ClientSender::settle() {
    // Closed by this side: the client's record has gone.
    const bool closed = !m_failure.empty() && (!m_connection || m_connection->nativeHandle() < 0);
    for (const MessageTag& message : m_gathered) {
        if (m_failure.empty()) {
            LOG_PROC(m_debugProcess, "send%s to client(id:%lu) done", message.text(), m_clientId);
        } else if (closed) {
            LOG_PROC(m_debugProcess, "abort send%s for closed client(id:%lu)", message.text(),
                     m_clientId);
        } else {
            LOG_PROC(m_debugProcess, "send%s to client(id:%lu) failed, ret=%s", message.text(),
                     m_clientId, m_failure);
        }
        message.finishTaskLifeTrace();
    }
    m_gathered.clear();
}

}  // namespace kelm
