#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "utils/Mutex.h"
#include "utils/NonCopyable.h"

namespace kelm {
struct PeerCredentials;
}

namespace IPC {

class Poller;
struct IncomingDescriptor;
struct PollEvent;

// Mode, user and group that a socket file gets; an empty name means no change.
using AccessAttribute = std::tuple<int, std::string, std::string>;

constexpr int IPC_CONN_FD_MAX = 2048;

// One end of a channel, known to the rest of the system by a small number of its own, which is
// free again only when the object is destroyed. Connections live in shared pointers: each holder (a
// send, a receive, a client's record) keeps both the object and its number.
//
// Threads: one reader at a time, and one writer, which holds writeMutex(); close, shutdown and
// look-ups from any thread. Owns: its number. An accepted connection belongs to the registry
// (adopt) until close(number). Locks: writeMutex(), then the others; the registry's mutex and
// m_baseMutex are leaves.
class ConnectionBase : public kelm::NonCopyable,
                       public std::enable_shared_from_this<ConnectionBase> {
 public:
    // The lowest free number is taken; none left is a fault of this program. The poller may be
    // null, for a connection that is only read and written; otherwise it lives in a shared pointer.
    explicit ConnectionBase(Poller* poller);
    virtual ~ConnectionBase();

    // The kernel's descriptor, -1 when closed.
    virtual int nativeHandle() = 0;
    // Without `bytesRead` all of `size` is read, however long it takes; with it, what is there.
    // An error or an end of the stream in the middle raises.
    virtual void read(void* buffer, int size, int* bytesRead) = 0;
    // For a reader that puts records together from their pieces: the number of bytes that were
    // there, at most `size`; 0 if nothing has come, which happens only without `wait`. An error or
    // the end of the stream raises; its text tells `leftBytes`, of which `size` is the next part.
    virtual int readArrived(void* buffer, int size, uint32_t leftBytes, bool wait) = 0;
    // The same for one descriptor: whether it is complete. Raises if it is none.
    virtual bool readArrived(IncomingDescriptor& incoming, bool wait) = 0;
    // After the last of these calls: bytes that are left in the connection's own buffer count as
    // readable for the poller.
    virtual void noteUnread() = 0;
    // Returns when all bytes are out; raises on an error.
    virtual void write(const void* buffer, int size) = 0;
    // The same for a peer that is not waited for at any price: `goOn` is asked every few
    // milliseconds while there is no room. False if it said no, with a part perhaps written.
    virtual bool write(const void* buffer, int size, const std::function<bool()>& goOn) = 0;
    // For a writer that must not wait: false, and nothing is written, if there is no room at once.
    // The kernel takes what is well below the socket's buffer whole; should it take a part, the
    // rest is waited for.
    virtual bool tryWrite(const void* buffer, int size) = 0;
    // Receives one descriptor, which the caller owns.
    virtual void read(int& fd) = 0;
    // Passes one descriptor; the caller keeps its own.
    virtual void write(int fd) = 0;
    virtual void create(const std::string& path, AccessAttribute attribute) = 0;
    virtual bool connect(const std::string& path) = 0;
    virtual void listen() = 0;
    virtual void accept(ConnectionBase* listener) = 0;
    // Idempotent. Reads and writes in progress on other threads end with an error.
    virtual void close() = 0;
    // False once closed or shut down.
    virtual bool connected() = 0;
    // From here to unblockPoller the connection makes no event, buffered messages included.
    virtual void blockPoller() = 0;
    virtual void unblockPoller() = 0;
    virtual void notify(int fd, int peerFd, unsigned long events, PollEvent* event) = 0;
    // Ends one or both directions (`how` as for the system call), operations in progress included.
    virtual void shutdown(int how) = 0;
    // Whether bytes wait in the connection's own buffer, of which the kernel knows nothing.
    virtual bool hasBufferedData() = 0;

    // Ends reads and writes at once, those in progress on other threads included.
    void shutdown();

    // Held for a whole record with its descriptors and blocks, or for several records, so that no
    // other writer comes in between. Deliberate: held while the peer makes room. Nothing else is
    // ever waited for under it, and neither shutdown nor close takes it, so they end that wait.
    kelm::Mutex& writeMutex() RETURN_CAPABILITY(m_writeMutex) { return m_writeMutex; }

    int getSimulateFD() const { return m_simulateFD; }
    // A text for messages: the client's name once it is known.
    void setUser(const std::string& user) EXCLUDES(m_baseMutex);
    std::string getUser() EXCLUDES(m_baseMutex);

    // The user behind an accepted connection; null for any other.
    const std::shared_ptr<const kelm::PeerCredentials>& getPeer() const { return m_peer; }

    // The connection of a number, null if there is none.
    static std::shared_ptr<ConnectionBase> findConnection(int id);
    // The same, raising "Can't find connection for fd(...)" if there is none.
    static std::shared_ptr<ConnectionBase> getConnectionById(int id);
    // Makes the registry an owner of the connection, until close(number).
    static void adopt(const std::shared_ptr<ConnectionBase>& connection);
    // Closes the connection of a number, if there is one. The registry's share passes to the
    // poller, which drops it at its next wait.
    static void close(int id);
    // All connections that can be looked up, in the order of their numbers.
    static std::vector<std::shared_ptr<ConnectionBase>> getAll();
    // shutdown(how) for every connected connection of the process.
    static void shutdownAll(int how);

 protected:
    // For a number from reserveNumber().
    ConnectionBase(Poller* poller, int number);
    // The lowest free number, now taken; -1 if no more than `kept` are free.
    static int reserveNumber(int kept = 0);
    static void releaseNumber(int number);
    // Lets look-ups find the connection; the last step of its construction.
    void publish();

    std::shared_ptr<Poller> getPoller() EXCLUDES(m_baseMutex);
    // Before publish(), while no other thread can find the connection.
    void setPeer(std::shared_ptr<const kelm::PeerCredentials> peer) { m_peer = std::move(peer); }

 private:
    friend class Poller;

    void setPoller(std::weak_ptr<Poller> poller) EXCLUDES(m_baseMutex);
    // Takes the registry's share out, if it has one.
    static std::shared_ptr<ConnectionBase> disown(int id);

    kelm::Mutex m_writeMutex;
    kelm::Mutex m_baseMutex;
    std::weak_ptr<Poller> m_poller GUARDED_BY(m_baseMutex);
    const int m_simulateFD;
    std::shared_ptr<const kelm::PeerCredentials> m_peer;  // fixed once others know the connection
    std::string m_user GUARDED_BY(m_baseMutex);
    // Atomic: set by the reader, cleared by the poller. Whether the poller's list of connections
    // with buffered bytes has this one.
    std::atomic<bool> m_listedAsBuffered{false};
};

// Ends a connection's block with the scope; the block itself is the caller's.
class PollBlocker : public kelm::NonCopyable {
 public:
    explicit PollBlocker(ConnectionBase* connection) : m_connection(connection) {}
    ~PollBlocker() { m_connection->unblockPoller(); }

 private:
    ConnectionBase* const m_connection;  // borrowed for the scope
};

}  // namespace IPC
