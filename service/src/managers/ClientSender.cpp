#include "managers/ClientSender.h"

#include <cerrno>
#include <system_error>
#include <utility>

#include "utils/IPC.h"
#include "utils/Log.h"
#include "utils/PeerCredentials.h"
#include "utils/StepTrace.h"

namespace kelm {

namespace {

// How many messages of any size may wait for a client that does not read.
constexpr uint64_t kMaxMessagesOfClient = 200;

}  // namespace

ClientSender::ClientSender(uint64_t clientId, int socket, StepTrace trace,
                           std::shared_ptr<Backlog> backlog)
    : m_clientId(clientId),
      m_socket(socket),
      m_trace(std::move(trace)),
      m_connection(IPC::ConnectionBase::findConnection(socket)),
      m_writer(socket),
      m_backlog(backlog ? std::move(backlog) : std::make_shared<Backlog>(kMaxMessagesOfClient)),
      m_pool("ResDp" + std::to_string(clientId), kMaxMessagesOfClient, SerialPool::LIGHT) {}

ClientSender::~ClientSender() = default;

// The share of the backlog outlives this object, the pool that waits may not.
void ClientSender::waitForRoom() {
    if (SerialPool::deferWait([backlog = m_backlog] { backlog->waitForRoom(); })) return;
    m_backlog->waitForRoom();
}

bool ClientSender::isOfUser(uid_t user) const {
    const auto peer = m_connection ? m_connection->getPeer() : nullptr;
    return peer && peer->user == user;
}

void ClientSender::write(KelmMsgBase& message) {
    m_onThread.assertHeld();
    if (!m_writer.hasRoomFor(message.size)) flush();
    // Also what cannot be written any more: settle() tells of each message once.
    m_gathered.emplace_back(message);
    if (isOpen() && m_writer.append(&message, !SerialPool::isHelping()) != 0) fail();
    if (!m_failure.empty() || m_writer.empty()) settle();
}

// Called when the queue is empty and when the buffer is full: a message never waits for a later
// one.
void ClientSender::flush() {
    m_onThread.assertHeld();
    if (m_gathered.empty()) return;
    if (SerialPool::isHelping()) return flushAtOnce();
    OwedPools::settle();  // the peer may let the write wait
    if (isOpen() && m_writer.flush() != 0) fail();
    settle();
}

// In a help: what finds no room at once is left to this pool's own thread, before its next job.
void ClientSender::flushAtOnce() {
    if (isOpen()) {
        const MessageWriter::Result result = m_writer.tryFlush();
        if (result == MessageWriter::WOULD_WAIT) {
            (void)SerialPool::deferWait([this] { flush(); });
            return;
        }
        if (result == MessageWriter::FAILED) fail();
    }
    settle();
}

void ClientSender::end() {
    m_onThread.assertHeld();
    flush();
    m_ended = true;
}

// The peer may have half a record, behind which nothing may be written; and its clients would wait
// for answers without end if the connection stayed open.
void ClientSender::fail() {
    m_failure = std::generic_category().message(errno);
    m_connection->shutdown();
}

bool ClientSender::isOpen() {
    if (m_failure.empty() && isClosed()) m_failure = "closed";
    return m_failure.empty();
}

bool ClientSender::isClosed() {
    return m_ended || !m_connection || m_connection->nativeHandle() < 0;
}

void ClientSender::settle() {
    // Closed by this side, with the client's record: no failure of the peer's.
    const bool closed = !m_failure.empty() && isClosed();
    for (const MessageTag& message : m_gathered) {
        if (m_failure.empty()) {
            LOG_STEP("send%s to client(id:%lu) done", message.text(), m_clientId);
        } else if (closed) {
            LOG_STEP("abort send%s for closed client(id:%lu)", message.text(), m_clientId);
        } else {
            LOG_STEP("send%s to client(id:%lu) failed, ret=%s", message.text(), m_clientId,
                     m_failure);
        }
        message.finishTaskLifeTrace();
    }
    m_gathered.clear();
}

}  // namespace kelm
