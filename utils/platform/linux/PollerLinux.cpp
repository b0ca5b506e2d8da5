#include <sys/epoll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <csignal>
#include <exception>
#include <mutex>
#include <utility>

#include "utils/ConnectionBase.h"
#include "utils/ErrorHelper.h"
#include "utils/Log.h"
#include "utils/OwedPools.h"
#include "utils/Poller.h"

namespace IPC {

namespace {

// A peer that has hung up is told by an error of the write; the signal would end the process.
void ignoreSigpipe() {
    static std::once_flag once;
    std::call_once(once, [] {
        struct sigaction old = {};
        // A program that has a handler of its own keeps it: this may be a library within it.
        if (::sigaction(SIGPIPE, nullptr, &old) == 0 && old.sa_handler == SIG_DFL) {
            (void)::signal(SIGPIPE, SIG_IGN);
        }
    });
}

// Once for the process, and so only on the first thread that waits; ignoreSigpipe() serves all.
void blockSigpipe() {
    static std::once_flag once;
    std::call_once(once, [] {
        sigset_t set;
        ::sigemptyset(&set);
        ::sigaddset(&set, SIGPIPE);
        const int s = ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
        if (s != 0) KELM_THROW("pthread_sigmask failed, s=" + std::to_string(s));
    });
}

}  // namespace

Poller::Poller() : m_epollFd(::epoll_create1(EPOLL_CLOEXEC)), m_wakeFd(::eventfd(0, EFD_CLOEXEC)) {
    if (!m_epollFd || !m_wakeFd) {
        kelm::assertionFailed("m_epollFd >= 0", {"Poll ctor: epoll_create failed."}, __FILE__,
                              __LINE__);
    }
    registerDescriptor(m_wakeFd.get());
    ignoreSigpipe();
}

// The registry's shares end here: no poller is left that could drop them later.
Poller::~Poller() {
    for (const auto& connection : takeAll()) {
        (void)ConnectionBase::disown(connection->getSimulateFD());
        connection->close();
    }
}

void Poller::add(ConnectionBase* pconn) {
    CR_ASSERT(pconn != NULL);  // NOLINT(modernize-use-nullptr): the words of the report
    const std::weak_ptr<ConnectionBase> connection = pconn->weak_from_this();
    CR_ASSERT(!connection.expired(), "a connection lives in a shared pointer");
    const int descriptor = pconn->nativeHandle();
    if (descriptor == -1) return;
    pconn->setPoller(weak_from_this());
    kelm::MutexLock lock(m_mapMutex);
    // The kernel would refuse a descriptor that is in its set already.
    if (!isMapped(descriptor)) registerDescriptor(descriptor);
    if (descriptor < kFastDescriptors) {
        m_fastMap[descriptor] = connection;
    } else {
        m_slowMap[descriptor] = connection;
    }
}

// By descriptor and not by pointer: an event may be fetched after its connection was destroyed.
void Poller::registerDescriptor(int descriptor) {
    epoll_event event = {};
    event.events = EPOLLIN | EPOLLRDHUP;
    event.data.fd = descriptor;
    if (::epoll_ctl(m_epollFd.get(), EPOLL_CTL_ADD, descriptor, &event) != 0) {
        KELM_THROW("add() epoll_ctl failed.");
    }
}

void Poller::remove(ConnectionBase* pconn) {
    CR_ASSERT(pconn != NULL);  // NOLINT(modernize-use-nullptr): the words of the report
    const int descriptor = pconn->nativeHandle();
    if (descriptor != -1) forget(descriptor);
}

// The kernel's refusal is ignored: a suspended descriptor has left its set already.
void Poller::forget(int descriptor) {
    kelm::MutexLock lock(m_mapMutex);
    (void)::epoll_ctl(m_epollFd.get(), EPOLL_CTL_DEL, descriptor, nullptr);
    if (descriptor < kFastDescriptors) {
        m_fastMap[descriptor].reset();
    } else {
        m_slowMap.erase(descriptor);
    }
}

// An empty event mask would still report the hang-up, over and over, so the descriptor leaves the
// kernel's set and stays in the map.
void Poller::suspend(int descriptor) {
    kelm::MutexLock lock(m_mapMutex);
    (void)::epoll_ctl(m_epollFd.get(), EPOLL_CTL_DEL, descriptor, nullptr);
}

void Poller::resume(int descriptor) {
    kelm::MutexLock lock(m_mapMutex);
    // A connection that was removed meanwhile stays removed.
    if (isMapped(descriptor)) registerDescriptor(descriptor);
}

bool Poller::isMapped(int descriptor) {
    if (descriptor >= kFastDescriptors) return m_slowMap.contains(descriptor);
    return !m_fastMap[descriptor].expired();
}

std::shared_ptr<ConnectionBase> Poller::find(int descriptor) {
    kelm::MutexLock lock(m_mapMutex);
    if (descriptor < kFastDescriptors) return m_fastMap[descriptor].lock();
    const auto found = m_slowMap.find(descriptor);
    return found == m_slowMap.end() ? nullptr : found->second.lock();
}

std::vector<std::shared_ptr<ConnectionBase>> Poller::takeAll() {
    std::vector<std::shared_ptr<ConnectionBase>> all;
    kelm::MutexLock lock(m_mapMutex);
    for (std::weak_ptr<ConnectionBase>& entry : m_fastMap) all.push_back(entry.lock());
    for (const auto& [descriptor, entry] : m_slowMap) all.push_back(entry.lock());
    std::erase(all, nullptr);
    return all;
}

bool Poller::wait(PollEvent* pevt, int timeoutMillisec) {
    CR_ASSERT(pevt);
    deleteClosed();
    runPosted();
    blockSigpipe();
    if (m_bufferedInARow < kBufferedInARow && takeBuffered(pevt)) {
        ++m_bufferedInARow;
        return true;
    }
    // After a row of events out of buffers: the kernel is looked at without a wait, and then the
    // buffers again.
    const bool lookOnly = m_bufferedInARow >= kBufferedInARow;
    m_bufferedInARow = 0;
    if (!lookOnly) return waitKernel(pevt, timeoutMillisec);
    // No wait behind the look, which may have taken a wake-up.
    return waitKernel(pevt, 0) || takeBuffered(pevt);
}

bool Poller::waitKernel(PollEvent* event, int timeoutMillisec) {
    if (timeoutMillisec != 0) kelm::OwedPools::assertSettled();
    epoll_event found = {};
    const int count = ::epoll_wait(m_epollFd.get(), &found, 1, timeoutMillisec);
    if (count == 0 || (count < 0 && errno == EINTR)) return false;
    if (count < 0) KELM_THROW("epoll_wait() error.");
    const int descriptor = found.data.fd;
    if (descriptor == m_wakeFd.get()) {
        eventfd_t wakes = 0;
        (void)::eventfd_read(descriptor, &wakes);
        return false;
    }
    const std::shared_ptr<ConnectionBase> connection = find(descriptor);
    // Destroyed or forgotten since the kernel noted the event.
    if (!connection) return false;
    connection->notify(descriptor, descriptor, found.events, event);
    return event->flags != 0;
}

bool Poller::takeBuffered(PollEvent* event) {
    while (m_hasBuffered.load()) {
        std::shared_ptr<ConnectionBase> connection;
        {
            kelm::MutexLock lock(m_bufferedMutex);
            connection = m_buffered.popFront().lock();
            m_hasBuffered.store(!m_buffered.empty());
        }
        if (!connection) continue;
        // Cleared before the look, so that bytes which come in between list it again.
        connection->m_listedAsBuffered.store(false);
        if (!connection->hasBufferedData()) continue;
        const int descriptor = connection->nativeHandle();
        connection->notify(descriptor, descriptor, EPOLLIN, event);
        if (event->flags != 0) return true;
    }
    return false;
}

// Listed once, however often it is noted before the poller comes to it.
void Poller::noteBuffered(ConnectionBase& connection) {
    if (connection.m_listedAsBuffered.exchange(true)) return;
    kelm::MutexLock lock(m_bufferedMutex);
    m_buffered.pushBack(connection.weak_from_this());
    m_hasBuffered.store(true);
}

void Poller::post(std::function<void()> callable) {
    kelm::MutexLock lock(m_queueMutex);
    m_queue.push(std::move(callable));
    m_hasPosted.store(true);
}

void Poller::deleteLater(std::shared_ptr<ConnectionBase> connection) {
    {
        kelm::MutexLock lock(m_deletionMutex);
        m_deletions.push_back(std::move(connection));
        m_hasDeletions.store(true);
    }
    wake();
}

void Poller::wake() { (void)::eventfd_write(m_wakeFd.get(), 1); }

void Poller::deleteClosed() {
    // Destroyed after the lock is released: a destructor may call back into the poller.
    std::list<std::shared_ptr<ConnectionBase>> closed;
    if (!m_hasDeletions.load() || !m_deletionMutex.tryLock()) return;  // busy: at the next wait
    closed.swap(m_deletions);
    m_hasDeletions.store(false);
    m_deletionMutex.unlock();
}

void Poller::runPosted() {
    while (m_hasPosted.load()) {
        std::function<void()> callable;
        {
            kelm::MutexLock lock(m_queueMutex);
            // Run outside the lock: it may post another one.
            callable = std::move(m_queue.front());
            m_queue.pop();
            m_hasPosted.store(!m_queue.empty());
        }
        try {
            callable();
        } catch (const std::exception& e) {
            LOG_ERROR("Exception in wait%s", e.what());
        }
    }
}

}  // namespace IPC
