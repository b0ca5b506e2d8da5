#pragma once

#include <functional>
#include <string>
#include <thread>

#include "tools/gateway/ListenSocket.h"
#include "utils/NonCopyable.h"
#include "utils/UniqueFd.h"

namespace kelm::gateway {

// Tells each who connects a line, and listens to nothing. The line is made on its thread.
//
// Threads: one of its own. Owns: the thread and its sockets.
class AgentServer : public NonCopyable {
 public:
    AgentServer(ListenSocket socket, std::function<std::string()> line);
    ~AgentServer();
    uint16_t port() const { return m_socket.port(); }

 private:
    void run();

    const ListenSocket m_socket;
    const std::function<std::string()> m_line;
    const UniqueFd m_end;
    std::thread m_thread;
};

}  // namespace kelm::gateway
