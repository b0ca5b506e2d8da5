#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "managers/Backlog.h"
#include "managers/MessageTag.h"
#include "protocol/src/MessageWriter.h"
#include "utils/NonCopyable.h"
#include "utils/SerialPool.h"
#include "utils/StepTrace.h"
#include "utils/ThreadRole.h"

namespace IPC {
class ConnectionBase;
}

namespace kelm {

// Writes one client's messages in order, on a thread of its own. Records that are ready together
// are written by one call: they gather until the queue is empty or the writer's buffer is full.
// Once a write has failed the rest is dropped, since the peer may have half a record.
//
// Threads: post() any; write() and flush() inside a posted job.
// Owns: its pool, and a share of the connection, so that its number is given to no other client.
class ClientSender : public NonCopyable {
 public:
    // `socket` is the number of the client's connection, which never changes; `backlog` that of
    // another client of the connection, null if there is none. Raises std::system_error when there
    // is no thread.
    ClientSender(uint64_t clientId, int socket, StepTrace trace,
                 std::shared_ptr<Backlog> backlog = nullptr);
    ~ClientSender();

    uint64_t getClientId() const { return m_clientId; }
    int getSocket() const { return m_socket; }
    const std::shared_ptr<Backlog>& getBacklog() const { return m_backlog; }
    // Whether that user registered the client.
    bool isOfUser(uid_t user) const;

    // Queues a job that writes a message of so many bytes; `isLight` if it does nothing that may
    // wait but write(), with a record that gathers. Blocks while the client's backlog is full: only
    // for the pool that builds messages.
    template <class Job>
    void post(uint64_t bytes, bool isLight, Job&& job) {
        if (m_backlog->isFull()) waitForRoom();
        m_backlog->add(bytes);
        enqueue(bytes, isLight, std::forward<Job>(job));
    }

    // The same for a notice, which is never held up and may wait.
    template <class Job>
    void postNotice(Job&& job) {
        m_backlog->addNotice();
        enqueue(0, false, std::forward<Job>(job));
    }

    // The message is written now or with later ones, or dropped; the log tells which when it has
    // happened.
    void write(KelmMsgBase& message);
    // Writes what has gathered.
    void flush();
    // Writes what has gathered, and drops what comes later: the connection is about to be closed,
    // which would cut a record in two.
    void end();

 private:
    // One job; the last one in the queue writes out what has gathered.
    class Turn : public NonCopyable {
     public:
        Turn(ClientSender& sender, uint64_t bytes) : m_sender(sender), m_bytes(bytes) {}
        ~Turn() {
            m_sender.m_backlog->remove(m_bytes);
            if (m_sender.m_pending.fetch_sub(1) == 1) m_sender.flush();
        }

     private:
        ClientSender& m_sender;
        const uint64_t m_bytes;
    };

    // Past the pool's own limit: the backlog is what holds up the poster.
    template <class Job>
    void enqueue(uint64_t bytes, bool isLight, Job&& job) {
        m_pending.fetch_add(1);
        InlineTask task([this, bytes, job = std::forward<Job>(job)]() mutable {
            const Turn turn(*this, bytes);
            job();
        });
        isLight ? m_pool.postNotice(std::move(task)) : m_pool.postOwn(std::move(task));
    }
    void waitForRoom();

    void flushAtOnce() REQUIRES(m_onThread);
    // Whether no write has failed and the connection is open.
    bool isOpen() REQUIRES(m_onThread);
    // Whether this side has closed the connection, or is about to.
    bool isClosed() REQUIRES(m_onThread);
    // After a failed write, with its errno.
    void fail() REQUIRES(m_onThread);
    // What was gathered has been written, or has failed.
    void settle() REQUIRES(m_onThread);

    const uint64_t m_clientId;
    const int m_socket;
    const StepTrace m_trace;
    const std::shared_ptr<IPC::ConnectionBase> m_connection;

    ThreadRole m_onThread;
    MessageWriter m_writer GUARDED_BY(m_onThread);
    std::vector<MessageTag> m_gathered GUARDED_BY(m_onThread);  // what the writer holds
    std::string m_failure GUARDED_BY(m_onThread);               // of the connection; empty: none
    bool m_ended GUARDED_BY(m_onThread) = false;

    const std::shared_ptr<Backlog> m_backlog;
    // Atomic: jobs posted and not done; raised on the posting thread, lowered on the pool's.
    std::atomic<uint64_t> m_pending{0};
    SerialPool m_pool;  // last: its jobs use all of the above
};

}  // namespace kelm
