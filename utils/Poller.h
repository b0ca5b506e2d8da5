#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <queue>
#include <vector>

#include "utils/Mutex.h"
#include "utils/NonCopyable.h"
#include "utils/Ring.h"
#include "utils/UniqueFd.h"

namespace IPC {

class ConnectionBase;

constexpr uint32_t kPollReadable = 1;
constexpr uint32_t kPollHungUp = 2;

// What Poller::wait found. It shares the connection, so that another thread's close leaves the
// number in place until the event has been handled.
struct PollEvent {
    uint32_t flags = 0;
    std::shared_ptr<ConnectionBase> connection;

    bool isReadable() const { return (flags & kPollReadable) != 0; }
    bool isHungUp() const { return (flags & kPollHungUp) != 0; }
    void clear() {
        flags = 0;
        connection.reset();
    }
};

// Tells its one waiting thread which connection can be read or has lost its peer. Lives in a
// shared pointer; connections know it by a weak one.
//
// Threads: wait() on one thread, which is also the one that reads the connections; all else from
// any. Owns: its two descriptors and closed connections until the next wait. Connections in the
// maps are borrowed. Locks: all mutexes here are leaves.
class Poller : public kelm::NonCopyable, public std::enable_shared_from_this<Poller> {
 public:
    Poller();
    ~Poller();  // closes the connections that are still on it

    // A connection without a descriptor is left alone, silently.
    void add(ConnectionBase* pconn) EXCLUDES(m_mapMutex);
    void remove(ConnectionBase* pconn) EXCLUDES(m_mapMutex);

    // Waits for one event; false if the time is up or nothing came of it.
    bool wait(PollEvent* pevt, int timeoutMillisec);
    int nativeHandle() const { return m_epollFd.get(); }

    // Ends the wait that is under way, or the next one.
    void wake();
    // Whether the next wait has something without asking the kernel.
    bool hasBuffered() const { return m_hasBuffered.load(); }

    // Runs at the next wait, on its thread.
    void post(std::function<void()> callable) EXCLUDES(m_queueMutex);
    // Drops this share of a closed connection at the next wait, which comes at once.
    void deleteLater(std::shared_ptr<ConnectionBase> connection) EXCLUDES(m_deletionMutex);

    // For connections. forget() drops a descriptor that is about to be closed; suspend() silences
    // it in the kernel, resume() undoes that.
    void forget(int descriptor) EXCLUDES(m_mapMutex);
    void suspend(int descriptor) EXCLUDES(m_mapMutex);
    void resume(int descriptor) EXCLUDES(m_mapMutex);
    // The connection was left with unread bytes in its own buffer.
    void noteBuffered(ConnectionBase& connection) EXCLUDES(m_bufferedMutex);

 private:
    static constexpr int kFastDescriptors = 1024;
    // After so many events out of buffers the kernel is looked at, so that no connection starves.
    static constexpr int kBufferedInARow = 4;

    void deleteClosed() EXCLUDES(m_deletionMutex);
    void runPosted() EXCLUDES(m_queueMutex);
    bool takeBuffered(PollEvent* event) EXCLUDES(m_bufferedMutex);
    bool waitKernel(PollEvent* event, int timeoutMillisec) EXCLUDES(m_mapMutex);
    std::shared_ptr<ConnectionBase> find(int descriptor) EXCLUDES(m_mapMutex);
    bool isMapped(int descriptor) REQUIRES(m_mapMutex);
    void registerDescriptor(int descriptor) REQUIRES(m_mapMutex);
    std::vector<std::shared_ptr<ConnectionBase>> takeAll() EXCLUDES(m_mapMutex);

    kelm::Mutex m_mapMutex;
    std::array<std::weak_ptr<ConnectionBase>, kFastDescriptors> m_fastMap GUARDED_BY(m_mapMutex);
    std::map<int, std::weak_ptr<ConnectionBase>> m_slowMap GUARDED_BY(m_mapMutex);

    kelm::Mutex m_queueMutex;
    std::queue<std::function<void()>> m_queue GUARDED_BY(m_queueMutex);
    // Atomics, here and below: whether there is something, so that a wait takes no lock in vain.
    std::atomic<bool> m_hasPosted{false};

    kelm::Mutex m_deletionMutex;
    std::list<std::shared_ptr<ConnectionBase>> m_deletions GUARDED_BY(m_deletionMutex);
    std::atomic<bool> m_hasDeletions{false};

    kelm::Mutex m_bufferedMutex;
    kelm::Ring<std::weak_ptr<ConnectionBase>> m_buffered GUARDED_BY(m_bufferedMutex);
    std::atomic<bool> m_hasBuffered{false};
    int m_bufferedInARow = 0;  // belongs to the waiting thread

    kelm::UniqueFd m_epollFd;
    kelm::UniqueFd m_wakeFd;  // a counter of the kernel's, readable once wake() was called
};

}  // namespace IPC
