#include "client/StreamSocket.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>

#include "client/ConnectError.h"

namespace kelm::client {

namespace {

using Clock = std::chrono::steady_clock;

// A service that stands still lets its queue of peers fill up; connect() would wait for ever.
void limitConnect(int socket, Deadline deadline) {
    const int64_t millis = std::max<int64_t>(deadline.count(), 1);
    const timeval time{millis / 1000, (millis % 1000) * 1000};
    (void)::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof(time));
}

int millisUntil(Clock::time_point end) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    return static_cast<int>(std::clamp<int64_t>(left, 0, INT32_MAX));
}

}  // namespace

Result<StreamSocket> StreamSocket::connect(const std::string& path, Deadline deadline,
                                           std::string what) {
    UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    UniqueFd interrupt(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!socket || !interrupt) return Error::fromErrno("opening a socket");
    limitConnect(socket.get(), deadline);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);  // cut as the service cuts it
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) !=
        0) {
        return connectError(path, errno);
    }
    return StreamSocket(std::move(socket), std::move(interrupt), std::move(what));
}

Error StreamSocket::wait(Clock::time_point end) const {
    while (true) {
        pollfd fds[] = {{m_interrupt.get(), POLLIN, 0}, {m_socket.get(), POLLIN, 0}};
        const int count = ::poll(fds, 2, millisUntil(end));
        if (count < 0 && errno != EINTR) return Error::fromErrno("waiting for the next " + m_what);
        // Looked at first, so that a reader that is to end reads nothing further.
        if (count > 0 && fds[0].revents != 0) {
            return {ErrorKind::kCanceled, 0, "the reading of " + m_what + "s was interrupted"};
        }
        if (count > 0) return {};
        if (Clock::now() >= end) return Error::timeout("the " + m_what);
    }
}

Result<size_t> StreamSocket::read(char* target, size_t size, Clock::time_point end) {
    while (true) {
        if (Error error = wait(end)) return error;
        const ssize_t count = ::recv(m_socket.get(), target, size, MSG_DONTWAIT);
        if (count > 0) return static_cast<size_t>(count);
        if (count == 0 || (errno != EAGAIN && errno != EINTR)) return streamEnded();
    }
}

Error StreamSocket::write(const std::string& text) const {
    const ssize_t count = ::send(m_socket.get(), text.data(), text.size(), MSG_NOSIGNAL);
    return count == static_cast<ssize_t>(text.size()) ? Error() : streamEnded();
}

void StreamSocket::interrupt() const { (void)::eventfd_write(m_interrupt.get(), 1); }

Error StreamSocket::streamEnded() const {
    return {ErrorKind::kConnectionLost, 0,
            "the stream of " + m_what + "s has ended; connect again"};
}

}  // namespace kelm::client
