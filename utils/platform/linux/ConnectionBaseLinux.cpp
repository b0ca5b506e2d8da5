#include <sys/socket.h>

#include <array>
#include <utility>
#include <vector>

#include "utils/ConnectionBase.h"
#include "utils/ErrorHelper.h"
#include "utils/Poller.h"

namespace IPC {

namespace {

struct Slot {
    bool taken = false;
    std::weak_ptr<ConnectionBase> connection;  // empty until published
    std::shared_ptr<ConnectionBase> owner;     // the registry's share, if adopted
};

// The numbers of connections are the indices of the table.
struct Registry {
    kelm::Mutex m_fd_mutex;
    std::array<Slot, IPC_CONN_FD_MAX> m_fd_map GUARDED_BY(m_fd_mutex);
};

// Never destroyed: connections may outlive the static objects.
Registry& registry() {
    static Registry& obj = *new Registry;
    return obj;
}

bool isNumber(int fd) { return fd >= 0 && fd < IPC_CONN_FD_MAX; }

}  // namespace

ConnectionBase::ConnectionBase(Poller* poller) : ConnectionBase(poller, reserveNumber()) {}

ConnectionBase::ConnectionBase(Poller* poller, int number) : m_simulateFD(number) {
    CR_ASSERT(m_simulateFD >= 0);
    if (poller == nullptr) return;
    // Weak: a poller may be destroyed before its connections.
    m_poller = poller->weak_from_this();
    CR_ASSERT(!m_poller.expired(), "a poller lives in a shared pointer");
}

ConnectionBase::~ConnectionBase() {
    CR_ASSERT(m_simulateFD >= 0 && m_simulateFD < IPC_CONN_FD_MAX);
    releaseNumber(m_simulateFD);
}

// The lowest one, and the walk ends as soon as enough are known to be free.
int ConnectionBase::reserveNumber(int kept) {
    Registry& all = registry();
    kelm::MutexLock lock(all.m_fd_mutex);
    int lowest = -1;
    int free = 0;
    for (int i = 0; i < IPC_CONN_FD_MAX && free <= kept; ++i) {
        if (all.m_fd_map[i].taken) continue;
        if (lowest < 0) lowest = i;
        ++free;
    }
    if (free <= kept) return -1;
    all.m_fd_map[lowest].taken = true;
    return lowest;
}

// Only by the destructor: a number stays with its connection for as long as that is shared.
void ConnectionBase::releaseNumber(int number) {
    Registry& all = registry();
    kelm::MutexLock lock(all.m_fd_mutex);
    all.m_fd_map[number].connection.reset();
    all.m_fd_map[number].taken = false;
}

// A number is looked up by threads that only remember it, even while its next connection is being
// built: these must not meet an object that has no shared pointer yet.
void ConnectionBase::publish() {
    Registry& all = registry();
    kelm::MutexLock lock(all.m_fd_mutex);
    all.m_fd_map[m_simulateFD].connection = weak_from_this();
}

std::shared_ptr<ConnectionBase> ConnectionBase::findConnection(int id) {
    if (!isNumber(id)) return nullptr;
    Registry& all = registry();
    kelm::MutexLock lock(all.m_fd_mutex);
    return all.m_fd_map[id].connection.lock();
}

std::shared_ptr<ConnectionBase> ConnectionBase::getConnectionById(int fd) {
    CR_ASSERT(fd >= 0 && fd < IPC_CONN_FD_MAX);
    std::shared_ptr<ConnectionBase> connection = findConnection(fd);
    if (!connection) {
        errno = 0;
        KELM_THROW("Can't find connection for fd(" + std::to_string(fd) + ")");
    }
    return connection;
}

void ConnectionBase::adopt(const std::shared_ptr<ConnectionBase>& connection) {
    connection->publish();
    Registry& all = registry();
    kelm::MutexLock lock(all.m_fd_mutex);
    all.m_fd_map[connection->m_simulateFD].owner = connection;
}

// The share is returned and not dropped here: it may be the last, and a destructor must not run
// under the registry's mutex.
std::shared_ptr<ConnectionBase> ConnectionBase::disown(int id) {
    Registry& all = registry();
    kelm::MutexLock lock(all.m_fd_mutex);
    return std::exchange(all.m_fd_map[id].owner, nullptr);
}

// A number that is free is no error: the other side of the connection may have been faster.
void ConnectionBase::close(int fd) {
    CR_ASSERT(fd >= 0 && fd < IPC_CONN_FD_MAX);
    std::shared_ptr<ConnectionBase> connection = findConnection(fd);
    if (!connection) return;
    connection->close();
    (void)disown(fd);  // `connection` keeps it
    // The last share usually ends on the poller's thread; without a poller it ends here.
    if (const std::shared_ptr<Poller> poller = connection->getPoller()) {
        poller->deleteLater(std::move(connection));
    }
}

// One by one, each under the mutex for itself: the list need not be of one moment.
std::vector<std::shared_ptr<ConnectionBase>> ConnectionBase::getAll() {
    std::vector<std::shared_ptr<ConnectionBase>> connections;
    for (int i = 0; i < IPC_CONN_FD_MAX; ++i) {
        if (auto connection = findConnection(i)) connections.push_back(std::move(connection));
    }
    return connections;
}

void ConnectionBase::shutdownAll(int how) {
    for (const auto& connection : getAll()) {
        if (connection->connected()) connection->shutdown(how);
    }
}

void ConnectionBase::shutdown() { shutdown(SHUT_RDWR); }

void ConnectionBase::setUser(const std::string& user) {
    kelm::MutexLock lock(m_baseMutex);
    m_user = user;
}

std::string ConnectionBase::getUser() {
    kelm::MutexLock lock(m_baseMutex);
    return m_user;
}

std::shared_ptr<Poller> ConnectionBase::getPoller() {
    kelm::MutexLock lock(m_baseMutex);
    return m_poller.lock();
}

void ConnectionBase::setPoller(std::weak_ptr<Poller> poller) {
    kelm::MutexLock lock(m_baseMutex);
    m_poller = std::move(poller);
}

}  // namespace IPC
