#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <sstream>
#include <utility>

#include "utils/ConnectionUDS.h"
#include "utils/ErrorHelper.h"
#include "utils/Poller.h"
#include "utils/StringHelper.h"

namespace IPC {

namespace {

bool wouldBlock(int error) { return error == EAGAIN || error == EWOULDBLOCK; }

constexpr int kForEver = -1;
constexpr int kQuestionMillisec = 10;  // between two questions whether to wait on

// Until the socket is ready again, or shut down, or the time is up; then the caller repeats its
// call.
void waitFor(int fd, short events, int millisec = kForEver) {
    pollfd entry = {fd, events, 0};
    (void)::poll(&entry, 1, millisec);
}

[[noreturn]] void raiseInvalidArgument(const char* text, int fd, const void* buffer, int size) {
    std::ostringstream words;
    words << text << fd << " buffer=" << buffer << " bufferSize=" << size;
    errno = 0;
    KELM_THROW(words.str());
}

int64_t elapsedMillisec(std::chrono::steady_clock::time_point since) {
    const auto spent = std::chrono::steady_clock::now() - since;
    return std::chrono::duration_cast<std::chrono::milliseconds>(spent).count();
}

[[noreturn]] void raiseNoDescriptor(const ControlReport& report) {
    std::ostringstream words;
    words << "Error: could not get recv_fd from socket"
          << " cmsg_len = " << report.cmsgLen << " cmsg_level = " << report.cmsgLevel
          << " cmsg_type = " << report.cmsgType << " msg.msg_controllen = " << report.controlLen
          << " num_fd = " << report.numFd << " CMSG_LEN(sizeof(int)) = " << CMSG_LEN(sizeof(int));
    errno = 0;
    KELM_THROW(words.str());
}

}  // namespace

// Keeps the descriptor open, though perhaps shut down, while an operation is inside.
class ConnectionUDS::Use {
 public:
    explicit Use(ConnectionUDS& connection)
        : m_connection(connection), m_fd(connection.beginUse()) {}
    ~Use() {
        if (m_fd >= 0) m_connection.endUse();
    }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

    int fd() const { return m_fd; }

 private:
    ConnectionUDS& m_connection;
    const int m_fd;
};

void ConnectionUDS::write(const void* buffer, int size) { (void)write(buffer, size, nullptr); }

bool ConnectionUDS::write(const void* buffer, int size, const std::function<bool()>& goOn) {
    const Use use(*this);
    if (use.fd() <= 0 || buffer == nullptr || size <= 0) {
        raiseInvalidArgument("invalid argument: m_fd=", use.fd(), buffer, size);
    }
    const char* next = static_cast<const char*>(buffer);
    // Without a question a write may block in the kernel; with one it must come back to ask.
    const int flags = MSG_NOSIGNAL | (goOn ? MSG_DONTWAIT : 0);
    while (size > 0) {
        const ssize_t count = ::send(use.fd(), next, static_cast<size_t>(size), flags);
        if (count >= 0) {
            next += count;
            size -= static_cast<int>(count);
        } else if (wouldBlock(errno)) {
            // Also without a question: the mode is the descriptor's, and a read may have changed
            // it.
            if (goOn && !goOn()) return false;
            waitFor(use.fd(), POLLOUT, goOn ? kQuestionMillisec : kForEver);
        } else if (errno != EINTR) {
            KELM_THROW("write socket(idx=" + std::to_string(getSimulateFD()) +
                       ") failed, user=" + getUser());
        }
    }
    return true;
}

bool ConnectionUDS::tryWrite(const void* buffer, int size) {
    const Use use(*this);
    ssize_t count = 0;
    do {
        count = ::send(use.fd(), buffer, static_cast<size_t>(size), MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (count < 0 && errno == EINTR);
    if (count == size) return true;
    if (count < 0 && wouldBlock(errno)) return false;
    // Failures are told there.
    const auto written = std::max<ssize_t>(count, 0);
    write(static_cast<const char*>(buffer) + written, size - static_cast<int>(written));
    return true;
}

void ConnectionUDS::read(void* buffer, int size, int* bytesRead) {
    const Use use(*this);
    if (use.fd() <= 0 || buffer == nullptr || size <= 0) {
        raiseInvalidArgument("read got invalid argument. m_fd=", use.fd(), buffer, size);
    }
    // The mode is the descriptor's, so writes of other threads meet it as well, see write().
    set_block_mode(use.fd(), bytesRead == nullptr);
    if (bytesRead == nullptr) {
        readAll(use.fd(), static_cast<char*>(buffer), size);
    } else {
        readSome(use.fd(), static_cast<char*>(buffer), size, bytesRead);
    }
    noteUnread();
}

void ConnectionUDS::readAll(int fd, char* target, int size) {
    while (size > 0) {
        const int count = readOnce(fd, target, size, static_cast<uint32_t>(size), true);
        target += count;
        size -= count;
    }
}

int ConnectionUDS::readArrived(void* buffer, int size, uint32_t leftBytes, bool wait) {
    const Use use(*this);
    if (use.fd() <= 0 || buffer == nullptr || size <= 0) {
        raiseInvalidArgument("read got invalid argument. m_fd=", use.fd(), buffer, size);
    }
    return readOnce(use.fd(), static_cast<char*>(buffer), size, leftBytes, wait);
}

int ConnectionUDS::readOnce(int fd, char* target, int size, uint32_t leftBytes, bool wait) {
    for (;;) {
        const ssize_t count =
            receive(fd, target, static_cast<size_t>(size), wait ? 0 : MSG_DONTWAIT);
        if (count > 0) return static_cast<int>(count);
        if (count == 0) {
            errno = 0;  // an orderly end is no error of the system
            raiseReadFailed(leftBytes, true);
        }
        if (wouldBlock(errno)) {
            if (!wait) return 0;
            waitFor(fd, POLLIN);
        } else if (errno != EINTR) {
            raiseReadFailed(leftBytes, false);
        }
    }
}

// The end of the stream is 0 bytes here and raises nothing, unlike in readOnce().
void ConnectionUDS::readSome(int fd, char* target, int size, int* bytesRead) {
    *bytesRead = 0;
    for (;;) {
        const ssize_t count = receive(fd, target, static_cast<size_t>(size), 0);
        if (count >= 0) {
            *bytesRead = static_cast<int>(count);
            return;
        }
        if (wouldBlock(errno)) return;
        if (errno != EINTR) raiseReadFailed(static_cast<uint32_t>(size), false);
    }
}

// Small reads are served from one system call for many; a record's head and body then cost one.
ssize_t ConnectionUDS::receive(int fd, char* target, size_t size, int flags) {
    if (m_input.size() == 0) {
        // A large block is received straight into its own memory, without a copy.
        if (size > ReceiveBuffer::kCapacity) return ::recv(fd, target, size, flags);
        const ssize_t count = m_input.fill(fd, flags);
        if (count <= 0) return count;
    }
    return static_cast<ssize_t>(m_input.take(target, size));
}

// The kernel no longer knows of the bytes in the buffer, so the poller has to be told.
void ConnectionUDS::noteUnread() {
    if (!hasBufferedData() || m_pollBlocked) return;
    if (const std::shared_ptr<Poller> poller = getPoller()) poller->noteBuffered(*this);
}

void ConnectionUDS::raiseReadFailed(uint32_t leftBytes, bool ended) {
    std::string text =
        "read socket(idx=" + std::to_string(getSimulateFD()) + ") failed, user=" + getUser();
    if (ended) text += " leftBytes=" + std::to_string(leftBytes);
    KELM_THROW(text);
}

void ConnectionUDS::set_block_mode(int fd, bool blocking) {
    if (m_blocking == blocking) return;  // two system calls saved on nearly every read
    const int flags = ::fcntl(fd, F_GETFL, 0);
    if (flags < 0) return;
    (void)::fcntl(fd, F_SETFL, blocking ? flags & ~O_NONBLOCK : flags | O_NONBLOCK);
    m_blocking = blocking;
}

// A connection that another thread has closed is an error of the transfer; one that never had a
// socket is a fault of this program.
void ConnectionUDS::requireOpenedOnce() {
    kelm::MutexLock lock(m_mutex);
    if (!m_openedOnce) kelm::assertionFailed("m_fd > 0", {}, __FILE__, __LINE__);
}

// The data that goes along is the number in this process. It says nothing to the peer, but a
// descriptor cannot travel without a byte.
void ConnectionUDS::write(int fd) {
    requireOpenedOnce();
    const Use use(*this);
    iovec part = {&fd, kDescriptorBytes};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message = {};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = CMSG_LEN(sizeof(int));
    cmsghdr* const cmsg = CMSG_FIRSTHDR(&message);
    cmsg->cmsg_level = SOL_SOCKET;
    cmsg->cmsg_type = SCM_RIGHTS;
    cmsg->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(cmsg), &fd, sizeof(int));
    while (::sendmsg(use.fd(), &message, MSG_NOSIGNAL) < 0) {
        if (wouldBlock(errno)) {
            waitFor(use.fd(), POLLOUT);
        } else if (errno == EPIPE) {
            KELM_THROW("Error: Read-end of socket " + std::to_string(getSimulateFD()) +
                       " is closed\n");
        } else if (errno != EINTR) {
            KELM_THROW("Error: send fd(" + std::to_string(fd) + ") through socket(" +
                       std::to_string(getSimulateFD()) + ") failed.\n");
        }
    }
}

void ConnectionUDS::read(int& fd) {
    IncomingDescriptor incoming;
    (void)readArrived(incoming, true);  // complete, as it has waited
    noteUnread();
    fd = incoming.fd.release();
}

// Its bytes may come in several pieces, and the descriptor is complete with the last of them.
bool ConnectionUDS::readArrived(IncomingDescriptor& incoming, bool wait) {
    requireOpenedOnce();
    const Use use(*this);
    while (incoming.leftBytes > 0) {
        if (!hasBufferedData() && !fillForDescriptor(use.fd(), wait)) return false;
        m_input.takeDescriptor(incoming);
    }
    if (!incoming.fd) raiseNoDescriptor(incoming.report);
    return true;
}

bool ConnectionUDS::fillForDescriptor(int fd, bool wait) {
    for (;;) {
        const auto start = std::chrono::steady_clock::now();
        const ssize_t count = m_input.fill(fd, wait ? 0 : MSG_DONTWAIT);
        if (count > 0) return true;
        const int64_t spent = elapsedMillisec(start);
        if (count == 0) {
            errno = 0;
            KELM_THROW(StringHelper::format(
                "The peer has performed an orderly shutdown. socketFd=%d spentTime=%ld",
                getSimulateFD(), spent));
        }
        if (wouldBlock(errno)) {
            if (!wait) return false;
            waitFor(fd, POLLIN);
        } else if (errno != EINTR) {
            KELM_THROW(
                StringHelper::format("Error: receive fd through socket(%d) failed. spentTime=%ld",
                                     getSimulateFD(), spent));
        }
    }
}

}  // namespace IPC
