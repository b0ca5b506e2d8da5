#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "utils/ConnectionBase.h"
#include "utils/ReceiveBuffer.h"

namespace IPC {

// A Unix-domain stream socket that carries bytes and descriptors. EMPTY at first; create() binds,
// listen() gives LISTENING, accept() or connect() CONNECTED, close() EMPTY from any state. A failed
// step leaves the descriptor to close().
//
// Threads: as the base. The one reader fills a buffer of the connection with one system call for
// several reads. A descriptor is closed only when the last read or write has left it.
// Owns: the socket and, after create(), the socket file.
// Locks: the base's writeMutex(), m_mutex, then the poller's and the base's other.
class ConnectionUDS : public ConnectionBase {
 public:
    explicit ConnectionUDS(Poller* poller);
    ~ConnectionUDS() override;

    // A new connection, or null if all numbers are in use: for what comes in from outside.
    static std::shared_ptr<ConnectionUDS> tryMake(Poller* poller);

    int nativeHandle() override { return m_fd.load(); }
    void read(void* buffer, int size, int* bytesRead) override EXCLUDES(m_mutex);
    void write(const void* buffer, int size) override EXCLUDES(m_mutex);
    bool write(const void* buffer, int size, const std::function<bool()>& goOn) override
        EXCLUDES(m_mutex);
    void read(int& fd) override EXCLUDES(m_mutex);
    int readArrived(void* buffer, int size, uint32_t leftBytes, bool wait) override
        EXCLUDES(m_mutex);
    bool readArrived(IncomingDescriptor& incoming, bool wait) override EXCLUDES(m_mutex);
    void noteUnread() override EXCLUDES(m_mutex);
    bool tryWrite(const void* buffer, int size) override EXCLUDES(m_mutex);
    void write(int fd) override EXCLUDES(m_mutex);
    // An empty path stands for a file named after the process. A file left there by an earlier
    // run is replaced. Names are cut silently at 107 characters, here and in connect().
    void create(const std::string& path, AccessAttribute attribute) override EXCLUDES(m_mutex);
    bool connect(const std::string& path) override EXCLUDES(m_mutex);
    // Gives up with errno EAGAIN when a listener that stands still has no room in its queue for so
    // long; 0 waits for ever.
    bool connect(const std::string& path, std::chrono::milliseconds limit) EXCLUDES(m_mutex);
    void listen() override EXCLUDES(m_mutex);
    void accept(ConnectionBase* listener) override EXCLUDES(m_mutex);
    void close() override EXCLUDES(m_mutex);
    bool connected() override EXCLUDES(m_mutex);
    void blockPoller() override EXCLUDES(m_mutex);
    void unblockPoller() override EXCLUDES(m_mutex);
    void notify(int fd, int peerFd, unsigned long events, PollEvent* event) override
        EXCLUDES(m_mutex);
    using ConnectionBase::shutdown;
    void shutdown(int how) override EXCLUDES(m_mutex);
    bool hasBufferedData() override { return m_input.size() != 0; }

    // On a listener: takes the next waiting peer and turns it away.
    void refuse() EXCLUDES(m_mutex);

 protected:
    ConnectionUDS(Poller* poller, int number);

 private:
    enum State { EMPTY = 0, LISTENING = 1, CONNECTED = 2 };
    enum class Side { OUTGOING, OPEN_TO_PEERS };
    class Use;

    // The descriptor for one operation, which keeps it open until endUse(); -1 when closed.
    int beginUse() EXCLUDES(m_mutex);
    void endUse() EXCLUDES(m_mutex);
    void closeRetiredUnsafe() REQUIRES(m_mutex);
    void requireEmpty(const char* text) EXCLUDES(m_mutex);
    void openSocket(Side side) EXCLUDES(m_mutex);
    void takeSocket(int fd, Side side) EXCLUDES(m_mutex);
    void enterState(State state) EXCLUDES(m_mutex);
    void requireOpenedOnce() EXCLUDES(m_mutex);
    void setConnectionAccessAttribute(const std::string& path, const AccessAttribute& attribute);

    void set_block_mode(int fd, bool blocking);
    void readAll(int fd, char* target, int size);
    void readSome(int fd, char* target, int size, int* bytesRead);
    // Bytes that are there, or 0 if none are and `wait` is not set.
    int readOnce(int fd, char* target, int size, uint32_t leftBytes, bool wait);
    // Bytes from the buffer or, when that is empty, from the kernel: the system call's result.
    ssize_t receive(int fd, char* target, size_t size, int flags);
    // False if nothing has come and `wait` is not set.
    bool fillForDescriptor(int fd, bool wait);
    [[noreturn]] void raiseReadFailed(uint32_t leftBytes, bool ended);

    std::atomic<bool> m_pollBlocked{false};  // atomic: set from any thread, read by the poller's
    std::string m_path GUARDED_BY(m_mutex);  // the socket file, if this connection made it
    kelm::Mutex m_mutex;

    // Atomics, changed under m_mutex but for the users, and read without it: each transfer counts
    // itself in before it reads the descriptor, and close() takes that away before it reads the
    // count, so that one of the two sees the other.
    std::atomic<int> m_state{EMPTY};
    std::atomic<int> m_fd{-1};
    std::atomic<int> m_users{0};       // operations inside the descriptor
    std::atomic<int> m_retiredFd{-1};  // closed, but for the operations still inside
    Side m_side GUARDED_BY(m_mutex) = Side::OUTGOING;
    bool m_openedOnce GUARDED_BY(m_mutex) = false;
    bool m_shutDown GUARDED_BY(m_mutex) = false;

    bool m_blocking = true;  // the mode of the descriptor; belongs to the reader
    ReceiveBuffer m_input;
};

}  // namespace IPC
