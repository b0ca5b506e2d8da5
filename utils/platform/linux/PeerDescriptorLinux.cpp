#include <fcntl.h>
#include <linux/major.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <exception>
#include <thread>

#include "utils/Mutex.h"
#include "utils/PeerDescriptor.h"
#include "utils/ReceiveBuffer.h"
#include "utils/Ring.h"
#include "utils/ThreadUtils.h"

namespace kelm {

namespace {

// Beyond this many files whose end does not come, further ones stay open until it does.
constexpr int kMostThreads = 8;
constexpr std::chrono::seconds kLinger{1};  // of a thread without work
constexpr int kMostReadings = 1024;         // of a socket's rest; a descriptor ends one

// A peer may have it linger again before the end: then it is a thread of the closer that waits.
void endFile(int fd) {
    const linger none{};
    (void)::setsockopt(fd, SOL_SOCKET, SO_LINGER, &none, sizeof(none));
    (void)::close(fd);
}

// Threads: any; its own wait in close() with no mutex held. Owns: the descriptors that wait.
// Locks: m_mutex, a leaf.
class Closer {
 public:
    // On the calling thread if there is no other for it.
    static void close(int fd) try {
        if (!instance().post(fd)) endFile(fd);
    } catch (const std::exception&) {
        endFile(fd);
    }

 private:
    // Never destroyed: its threads may still wait for a peer when the process ends.
    static Closer& instance() {
        static Closer& obj = *new Closer;
        return obj;
    }

    bool post(int fd) {
        MutexLock lock(m_mutex);
        if (m_waiting.size() >= m_idle && m_threads < kMostThreads && !start() && m_threads == 0) {
            return false;
        }
        m_waiting.pushBack(fd);
        m_added.notifyOne();
        return true;
    }

    bool start() REQUIRES(m_mutex) try {
        std::thread([this] { routine(); }).detach();
        ++m_threads;
        ++m_idle;
        return true;
    } catch (const std::exception&) {
        return false;
    }

    void routine() EXCLUDES(m_mutex) {
        ThreadUtils::setName("PeerFiles");
        MutexLock lock(m_mutex);
        while (waitForWork()) {
            const int fd = m_waiting.popFront();
            --m_idle;
            lock.unlock();
            endFile(fd);
            lock.lock();
            ++m_idle;
        }
        --m_idle;
        --m_threads;
    }

    bool waitForWork() REQUIRES(m_mutex) {
        const auto deadline = std::chrono::steady_clock::now() + kLinger;
        while (m_waiting.empty()) {
            if (!m_added.waitUntil(m_mutex, deadline)) return !m_waiting.empty();
        }
        return true;
    }

    Mutex m_mutex;
    CondVar m_added;
    Ring<int> m_waiting GUARDED_BY(m_mutex);
    size_t m_idle GUARDED_BY(m_mutex) = 0;  // threads that are not inside a close
    int m_threads GUARDED_BY(m_mutex) = 0;
};

// Shared memory, which alone has seals, pipes, devices like /dev/null, and files of a disk. By what
// the kernel knows already: a file system that is the peer's own need not answer.
bool endsAtOnce(int fd) {
    if (::fcntl(fd, F_GET_SEALS) >= 0) return true;
    struct statx known = {};
    if (::statx(fd, "", AT_EMPTY_PATH | AT_STATX_DONT_SYNC, STATX_TYPE, &known) != 0) return false;
    return S_ISFIFO(known.stx_mode) ||
           (S_ISCHR(known.stx_mode) && known.stx_rdev_major == MEM_MAJOR) ||
           (S_ISREG(known.stx_mode) && known.stx_dev_major != UNNAMED_MAJOR);
}

// Reads what is left in it, which may have brought descriptors, and takes peers off its queue.
// Whether nothing is left.
bool drain(int socket) try {
    int peer = -1;
    while ((peer = ::accept4(socket, nullptr, nullptr, SOCK_CLOEXEC)) >= 0)
        closeSocketOfPeers(peer);
    if (errno != EINVAL) return false;  // that of an empty queue, or of none
    IPC::ReceiveBuffer rest;
    for (int i = 0; i < kMostReadings; ++i) {
        int unread = 0;
        if (::ioctl(socket, SIOCINQ, &unread) != 0 || unread == 0) return true;
        (void)rest.fill(socket, MSG_DONTWAIT);
        (void)rest.take(nullptr, rest.size());
    }
    return false;
} catch (const std::exception&) {
    return false;
}

}  // namespace

void closeOfPeer(int fd) {
    if (!endsAtOnce(fd)) return Closer::close(fd);
    (void)::close(fd);
}

// Shut down first: nothing comes behind the reading.
void closeSocketOfPeers(int socket) {
    (void)::shutdown(socket, SHUT_RDWR);
    if (!drain(socket)) return Closer::close(socket);
    (void)::close(socket);
}

}  // namespace kelm
