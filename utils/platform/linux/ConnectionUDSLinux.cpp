#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

#include "utils/ConnectionUDS.h"
#include "utils/ErrorHelper.h"
#include "utils/FileHelper.h"
#include "utils/PeerCredentials.h"
#include "utils/PeerDescriptor.h"
#include "utils/Poller.h"
#include "utils/StringHelper.h"

namespace IPC {

namespace {

// Peers that have connected and are not accepted yet; further ones wait in connect().
constexpr int kBacklog = 5;
constexpr size_t kMaxPathLength = sizeof(sockaddr_un::sun_path) - 1;

struct Address {
    sockaddr_un name = {};
    socklen_t length = 0;
};

std::string cutPath(const std::string& path) { return path.substr(0, kMaxPathLength); }

Address makeAddress(const std::string& path) {
    Address address;
    address.name.sun_family = AF_UNIX;
    const size_t count = StringHelper::copyStringSafe(address.name.sun_path, path);
    // The family, the name and its closing zero.
    address.length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + count + 1);
    return address;
}

// Also limits the wait of connect(); 0 is no limit.
void limitSends(int socket, std::chrono::milliseconds limit) {
    const timeval time{limit.count() / 1000, (limit.count() % 1000) * 1000};
    (void)::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &time, sizeof(time));
}

int acceptOn(int listener) {
    for (;;) {
        const int fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0 || errno != EINTR) return fd;
    }
}

}  // namespace

ConnectionUDS::ConnectionUDS(Poller* poller) : ConnectionBase(poller) {}

ConnectionUDS::ConnectionUDS(Poller* poller, int number) : ConnectionBase(poller, number) {}

ConnectionUDS::~ConnectionUDS() { ConnectionUDS::close(); }

std::shared_ptr<ConnectionUDS> ConnectionUDS::tryMake(Poller* poller) {
    const int number = reserveNumber();
    if (number < 0) return nullptr;
    return std::shared_ptr<ConnectionUDS>(new ConnectionUDS(poller, number));
}

bool ConnectionUDS::connected() {
    kelm::MutexLock lock(m_mutex);
    return m_state == CONNECTED && !m_shutDown;
}

// Not before the last transfer on an old descriptor has ended: the users of both would be counted
// as one.
void ConnectionUDS::requireEmpty(const char* text) {
    kelm::MutexLock lock(m_mutex);
    if (m_state == EMPTY && m_fd < 0 && m_retiredFd < 0) return;
    errno = 0;
    KELM_THROW(text);
}

// Not inherited: the boot tool would otherwise keep the socket open after the end of the service.
void ConnectionUDS::openSocket(Side side) {
    kelm::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) KELM_THROW("ipc_connection_linux_UDS : socket() failed.");
    takeSocket(fd.release(), side);
}

void ConnectionUDS::takeSocket(int fd, Side side) {
    // Nothing of an earlier peer may reach the new one.
    (void)m_input.take(nullptr, m_input.size());
    m_blocking = true;
    m_pollBlocked = false;
    kelm::MutexLock lock(m_mutex);
    m_fd = fd;
    m_side = side;
    m_openedOnce = true;
    m_shutDown = false;
}

void ConnectionUDS::enterState(State state) {
    {
        kelm::MutexLock lock(m_mutex);
        m_state = state;
    }
    // Look-ups find the connection before the poller makes an event for it.
    publish();
    if (const std::shared_ptr<Poller> poller = getPoller()) poller->add(this);
}

void ConnectionUDS::create(const std::string& path, AccessAttribute attribute) {
    requireEmpty("state is not EMPTY when create()");
    openSocket(Side::OPEN_TO_PEERS);
    const std::string name =
        cutPath(path.empty() ? StringHelper::format("/var/tmp/%05d", ::getpid()) : path);
    // A file that a service left behind, which would make bind() fail.
    (void)::unlink(name.c_str());
    const Address address = makeAddress(name);
    if (::bind(nativeHandle(), reinterpret_cast<const sockaddr*>(&address.name), address.length) !=
        0) {
        KELM_THROW("ipc_connection_linux_UDS : bind() failed.");
    }
    {
        kelm::MutexLock lock(m_mutex);
        m_path = name;  // from here close() removes the file
    }
    setConnectionAccessAttribute(name, attribute);
}

void ConnectionUDS::setConnectionAccessAttribute(const std::string& path,
                                                 const AccessAttribute& attribute) {
    const auto& [mode, user, group] = attribute;
    if (FileHelper::updateAccessAttribute(path, group, user, mode)) return;
    const int error = errno;
    KELM_THROW(
        StringHelper::format("failed to change attribute to file descriptor '%d', errno=%d (%s)",
                             nativeHandle(), error, std::strerror(error)));
}

void ConnectionUDS::listen() {
    if (::listen(nativeHandle(), kBacklog) != 0) KELM_THROW("listen failed");
    enterState(LISTENING);
}

void ConnectionUDS::accept(ConnectionBase* listener) {
    requireEmpty("state is not EMPTY when connect()");
    errno = 0;
    if (listener == nullptr) KELM_THROW("listener is null");
    auto* const socket = dynamic_cast<ConnectionUDS*>(listener);
    if (socket == nullptr) KELM_THROW("listener is not ipc_connection_linux_UDS");
    const int fd = acceptOn(socket->nativeHandle());
    if (fd < 0) KELM_THROW("accept failed");
    takeSocket(fd, Side::OPEN_TO_PEERS);
    // A peer whose user is unknown could be given no rights to anything.
    auto peer = kelm::PeerCredentials::ofSocket(fd);
    if (!peer) KELM_THROW("accept failed, the peer's user cannot be told");
    setPeer(std::move(peer));
    enterState(CONNECTED);
}

// Accepted and closed at once: left in the queue, it would make the listener readable for ever.
void ConnectionUDS::refuse() {
    const kelm::PeerSocket unwanted(acceptOn(nativeHandle()));
    if (!unwanted) KELM_THROW("accept failed");
}

bool ConnectionUDS::connect(const std::string& path) {
    return connect(path, std::chrono::milliseconds(0));
}

bool ConnectionUDS::connect(const std::string& path, std::chrono::milliseconds limit) {
    requireEmpty("state is not EMPTY when connect()");
    openSocket(Side::OUTGOING);
    const Address address = makeAddress(cutPath(path));
    limitSends(nativeHandle(), limit);
    if (::connect(nativeHandle(), reinterpret_cast<const sockaddr*>(&address.name),
                  address.length) != 0) {
        const int error = errno;
        close();
        errno = error;
        return false;
    }
    // The limit is for connect() alone; later writes wait as long as the peer needs.
    limitSends(nativeHandle(), std::chrono::milliseconds(0));
    enterState(CONNECTED);
    return true;
}

void ConnectionUDS::close() {
    const std::shared_ptr<Poller> poller = getPoller();
    kelm::MutexLock lock(m_mutex);
    m_state.store(EMPTY);
    const int fd = m_fd.load();
    if (fd < 0) return;
    // Before the descriptor is closed: the kernel may give its number to another file at once.
    if (poller) poller->forget(fd);
    m_fd.store(-1);
    // Transfers in progress fail, and the last of them closes the descriptor: the kernel must not
    // give its number to another socket while a read or write still uses it.
    if (m_users.load() > 0) (void)::shutdown(fd, SHUT_RDWR);
    m_retiredFd.store(fd);
    closeRetiredUnsafe();
    if (!m_path.empty()) (void)::unlink(m_path.c_str());
    m_path.clear();
}

int ConnectionUDS::beginUse() {
    m_users.fetch_add(1);
    const int fd = m_fd.load();
    if (fd < 0) endUse();
    return fd;
}

void ConnectionUDS::endUse() {
    m_users.fetch_sub(1);
    if (m_retiredFd.load() < 0) return;
    kelm::MutexLock lock(m_mutex);
    closeRetiredUnsafe();
}

void ConnectionUDS::closeRetiredUnsafe() {
    if (m_users.load() > 0 || m_retiredFd.load() < 0) return;
    // A forked child that closes its copy of an outgoing one must not end the parent's.
    const auto end = m_side == Side::OUTGOING ? kelm::closeNow : kelm::closeSocketOfPeers;
    end(m_retiredFd.exchange(-1));
}

// Without waiting for operations that are inside: it is what ends them.
void ConnectionUDS::shutdown(int how) {
    kelm::MutexLock lock(m_mutex);
    if (how == SHUT_RDWR) m_shutDown = true;
    if (m_fd >= 0) (void)::shutdown(m_fd, how);
}

// The flag and the kernel's set change together: a block that comes while another thread unblocks
// must not leave behind a descriptor in the kernel's set whose events are all dropped: the wait
// would return at once for ever.
void ConnectionUDS::blockPoller() {
    const std::shared_ptr<Poller> poller = getPoller();
    kelm::MutexLock lock(m_mutex);
    m_pollBlocked = true;
    if (poller && m_fd >= 0) poller->suspend(m_fd);
}

void ConnectionUDS::unblockPoller() {
    const std::shared_ptr<Poller> poller = getPoller();
    {
        kelm::MutexLock lock(m_mutex);
        if (!m_pollBlocked) return;
        // Still blocked if this throws: the caller may try again.
        if (poller && m_fd >= 0) poller->resume(m_fd);
        m_pollBlocked = false;
    }
    if (!poller || !hasBufferedData()) return;
    poller->noteBuffered(*this);
    poller->wake();  // it may wait for what the kernel has
}

// Asked again here, since an event may have been fetched before the connection was closed or
// blocked.
void ConnectionUDS::notify(int, int, unsigned long events, PollEvent* event) {
    constexpr unsigned long kHungUpEvents = EPOLLHUP | EPOLLRDHUP;
    if (m_state.load() == EMPTY || m_pollBlocked) return;
    if ((events & EPOLLIN) != 0) event->flags |= kPollReadable;
    if ((events & kHungUpEvents) != 0) event->flags |= kPollHungUp;
    if (event->flags != 0) event->connection = shared_from_this();
}

}  // namespace IPC
