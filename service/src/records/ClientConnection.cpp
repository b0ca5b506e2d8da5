#include "records/ClientConnection.h"

#include <utility>

#include "utils/ConnectionBase.h"

namespace kelm {

ClientConnection::ClientConnection(std::shared_ptr<IPC::ConnectionBase> connection)
    : m_connection(std::move(connection)), m_socket(m_connection->getSimulateFD()) {}

// The number is still this connection's, as it is held to the end of this body.
ClientConnection::~ClientConnection() { IPC::ConnectionBase::close(m_socket); }

const std::shared_ptr<const PeerCredentials>& ClientConnection::getPeer() const {
    return m_connection->getPeer();
}

bool ClientConnection::isConnected() const { return m_connection->connected(); }

void ClientConnection::shutdown() { m_connection->shutdown(); }

}  // namespace kelm
