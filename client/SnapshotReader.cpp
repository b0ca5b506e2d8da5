#include "client/SnapshotReader.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>

#include "client/ConnectError.h"
#include "client/Decode.h"
#include "utils/RunPaths.h"
#include "utils/UniqueFd.h"

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

Error streamEnded() {
    return {ErrorKind::kConnectionLost, 0, "the stream of snapshots has ended; connect again"};
}

}  // namespace

class SnapshotReader::Impl {
 public:
    Impl(UniqueFd socket, UniqueFd interrupt)
        : m_socket(std::move(socket)), m_interrupt(std::move(interrupt)) {}

    // A part that has come before an error stays, and the next read goes on behind it.
    Result<Snapshot> read(Deadline deadline) {
        const Clock::time_point end = Clock::now() + deadline;
        while (m_filled < sizeof(InfoPackage)) {
            if (Error error = wait(end)) return error;
            if (Error error = readSome()) return error;
        }
        m_filled = 0;
        return decodeSnapshot(*m_package);
    }

    void interrupt() const { (void)::eventfd_write(m_interrupt.get(), 1); }
    int fd() const { return m_socket.get(); }

 private:
    // Until bytes have come.
    Error wait(Clock::time_point end) const {
        while (true) {
            pollfd fds[] = {{m_interrupt.get(), POLLIN, 0}, {m_socket.get(), POLLIN, 0}};
            const int count = ::poll(fds, 2, millisUntil(end));
            if (count < 0 && errno != EINTR) return Error::fromErrno("waiting for a snapshot");
            // Looked at first, so that a reader that is to end reads no further package.
            if (count > 0 && fds[0].revents != 0) {
                return {ErrorKind::kCanceled, 0, "the reading of snapshots was interrupted"};
            }
            if (count > 0) return {};
            if (Clock::now() >= end) return Error::timeout("the snapshot");
        }
    }

    Error readSome() {
        char* const target = reinterpret_cast<char*>(m_package.get()) + m_filled;
        const ssize_t count =
            ::recv(m_socket.get(), target, sizeof(InfoPackage) - m_filled, MSG_DONTWAIT);
        if (count > 0) m_filled += static_cast<size_t>(count);
        if (count > 0 || (count < 0 && (errno == EAGAIN || errno == EINTR))) return {};
        return streamEnded();
    }

    const UniqueFd m_socket;
    const UniqueFd m_interrupt;  // an eventfd, never read: once told, for ever
    std::unique_ptr<InfoPackage> m_package = std::make_unique<InfoPackage>();
    size_t m_filled = 0;  // bytes of the package that have come
};

SnapshotReader::SnapshotReader(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}
SnapshotReader::~SnapshotReader() = default;

Result<std::unique_ptr<SnapshotReader>> SnapshotReader::connect(const std::string& socketPath,
                                                                Deadline deadline) {
    const std::string path = socketPath.empty() ? RunPaths::snapshotSocket() : socketPath;
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
    return std::unique_ptr<SnapshotReader>(
        new SnapshotReader(std::make_unique<Impl>(std::move(socket), std::move(interrupt))));
}

Result<Snapshot> SnapshotReader::read(Deadline deadline) { return m_impl->read(deadline); }
void SnapshotReader::interrupt() { m_impl->interrupt(); }
int SnapshotReader::fd() const { return m_impl->fd(); }

}  // namespace kelm::client
