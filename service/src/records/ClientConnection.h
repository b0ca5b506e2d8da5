#pragma once

#include <atomic>
#include <memory>

#include "utils/NonCopyable.h"

namespace IPC {
class ConnectionBase;
}

namespace kelm {

struct PeerCredentials;

// The connection of one or more client records: closed when the last of them is destroyed. While it
// is held, its number is given to no other connection.
//
// Threads: any.
class ClientConnection : public NonCopyable {
 public:
    explicit ClientConnection(std::shared_ptr<IPC::ConnectionBase> connection);
    ~ClientConnection();  // closes the connection

    // The connection's number.
    int getSocket() const { return m_socket; }
    // The user at its other end.
    const std::shared_ptr<const PeerCredentials>& getPeer() const;
    // False once it has been closed or shut down.
    bool isConnected() const;
    // Ends every read and write on it at once, those in progress included.
    void shutdown();

    // Each client costs a thread, so their number is bounded; those that have left count too.
    static constexpr int kMaxRegistrations = 64;
    // Notes another client; false when there are too many.
    bool addRegistration() { return ++m_registrations <= kMaxRegistrations; }

 private:
    const std::shared_ptr<IPC::ConnectionBase> m_connection;
    const int m_socket;
    std::atomic<int> m_registrations{0};  // atomic: only counts
};

}  // namespace kelm
