#include "tools/gateway/AgentServer.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <utility>

namespace kelm::gateway {

AgentServer::AgentServer(ListenSocket socket, std::function<std::string()> line)
    : m_socket(std::move(socket)),
      m_line(std::move(line)),
      m_end(::eventfd(0, EFD_CLOEXEC)),
      m_thread([this] { run(); }) {}

AgentServer::~AgentServer() {
    (void)::eventfd_write(m_end.get(), 1);
    m_thread.join();
}

void AgentServer::run() {
    constexpr int kOutOfDescriptorsMs = 100;
    // A close before the peer has read, with words of its own unread, would take the line from it:
    // a connection stays until so many came after it.
    std::array<UniqueFd, 16> last;
    size_t next = 0;
    pollfd fds[] = {{m_end.get(), POLLIN, 0}, {m_socket.fd(), POLLIN, 0}};
    while (::poll(fds, 2, -1) < 0 || fds[0].revents == 0) {
        UniqueFd peer(::accept4(m_socket.fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!peer) {
            if (errno == EMFILE || errno == ENFILE) (void)::poll(fds, 1, kOutOfDescriptorsMs);
            continue;
        }
        const std::string line = m_line();
        (void)::send(peer.get(), line.data(), line.size(), MSG_NOSIGNAL);
        ::shutdown(peer.get(), SHUT_WR);
        last[next++ % last.size()] = std::move(peer);
    }
}

}  // namespace kelm::gateway
