#include "tools/gateway/grpc/GrpcAcceptor.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <optional>
#include <utility>

namespace kelm::gateway {

namespace {

std::optional<ino_t> inodeOf(int fd) {
    struct stat about {};
    if (::fstat(fd, &about) != 0) return std::nullopt;
    return about.st_ino;
}

}  // namespace

GrpcAcceptor::GrpcAcceptor(std::vector<ListenSocket> sockets, size_t connections,
                           std::atomic<int64_t>& count, Take take)
    : m_sockets(std::move(sockets)),
      m_connections(connections),
      m_count(count),
      m_take(std::move(take)),
      m_end(::eventfd(0, EFD_CLOEXEC)),
      m_thread([this] { run(); }) {}

GrpcAcceptor::~GrpcAcceptor() {
    ::eventfd_write(m_end.get(), 1);
    m_thread.join();
}

void GrpcAcceptor::run() {
    constexpr int kOutOfDescriptors = 100;  // ms until the next trial
    constexpr int kLook = 1000;             // ms, whether some are closed
    std::vector<pollfd> waits{{m_end.get(), POLLIN, 0}};
    for (const ListenSocket& each : m_sockets) waits.push_back({each.fd(), POLLIN, 0});
    while (true) {
        if (::poll(waits.data(), waits.size(), m_accepted.empty() ? -1 : kLook) < 0) continue;
        if (waits.front().revents != 0) return;
        errno = 0;
        for (size_t i = 0; i < m_sockets.size(); ++i) {
            if (waits[i + 1].revents != 0) acceptSome(m_sockets[i]);
        }
        const bool isOut = errno == EMFILE || errno == ENFILE || errno == ENOBUFS;
        forgetClosed();
        if (isOut) ::poll(waits.data(), 1, kOutOfDescriptors);
    }
}

// A part: peers may come faster than they are taken, and other sockets and the end must be seen.
void GrpcAcceptor::acceptSome(const ListenSocket& socket) {
    constexpr int kAtOnce = 64;
    if (m_accepted.size() >= m_connections) forgetClosed();
    for (int i = 0; i < kAtOnce; ++i) {
        UniqueFd fd(::accept4(socket.fd(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!fd && (errno == ECONNABORTED || errno == EINTR)) continue;
        if (!fd) return;
        const auto inode = inodeOf(fd.get());
        if (!inode || m_accepted.size() >= m_connections) continue;
        const int on = 1;
        (void)::setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        m_accepted[fd.get()] = *inode;
        m_take(fd.release());
    }
}

void GrpcAcceptor::forgetClosed() {
    std::erase_if(m_accepted, [](const auto& each) { return inodeOf(each.first) != each.second; });
    m_count = static_cast<int64_t>(m_accepted.size());
}

}  // namespace kelm::gateway
