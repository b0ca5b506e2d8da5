#pragma once

#include <memory>

#include "utils/NonCopyable.h"

namespace IPC {
class ConnectionBase;
}

namespace kelm {

// The connection of one or more client records: closed when the last of them is gone. While it is
// held, its number goes to no other connection.
//
// Threads: any.
class ClientConnection : public NonCopyable {
 public:
    explicit ClientConnection(std::shared_ptr<IPC::ConnectionBase> connection);
    ~ClientConnection();  // closes the connection

    // The connection's number.
    int getSocket() const { return m_socket; }
    // False once it has been closed or shut down.
    bool isConnected() const;
    // Ends every read and write on it at once, those in progress included.
    void shutdown();

 private:
    const std::shared_ptr<IPC::ConnectionBase> m_connection;
    const int m_socket;
};

}  // namespace kelm
