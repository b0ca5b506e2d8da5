#include "managers/ClientSender.h"

#include <string>

namespace kelm {

namespace {

// How many messages a client that does not read may hold up before it holds up the service.
constexpr uint64_t kMaxQueuedMessages = 200;

}  // namespace

ClientSender::ClientSender(uint64_t clientId)
    : m_clientId(clientId), m_pool("ResDp" + std::to_string(clientId), 1, kMaxQueuedMessages) {}

int ClientSender::write(int socket, KelmMsgBase* message) {
    m_onThread.assertHeld();
    if (!m_writer) m_writer.emplace(socket);
    return m_writer->append(message);
}

void ClientSender::flush() {
    m_onThread.assertHeld();
    if (m_writer) (void)m_writer->flush();  // a failure is the peer's hang-up, seen elsewhere
}

}  // namespace kelm
