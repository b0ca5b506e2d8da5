#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <utility>

#include "protocol/src/MessageWriter.h"
#include "utils/NonCopyable.h"
#include "utils/ThreadPool.h"
#include "utils/ThreadRole.h"

namespace kelm {

// Writes one client's messages in order, on a thread of its own. Records that are ready together
// leave in one write: they gather until the queue is empty or the writer's buffer is full.
//
// Threads: post() any; write() and flush() inside a posted job.
// Owns: its pool, and a share of the connection, so that its number goes to no other client.
class ClientSender : public NonCopyable {
 public:
    explicit ClientSender(uint64_t clientId);

    uint64_t getClientId() const { return m_clientId; }

    // Queues a job; blocks while 200 are queued, except on the sender's own thread.
    template <class Job>
    void post(Job&& job) {
        m_pending.fetch_add(1);
        m_pool.post([this, job = std::forward<Job>(job)]() mutable {
            const Turn turn(*this);
            job();
        });
    }

    // The same for a notice, which is never held up.
    template <class Job>
    void postNotice(Job&& job) {
        m_pending.fetch_add(1);
        m_pool.postNotice([this, job = std::forward<Job>(job)]() mutable {
            const Turn turn(*this);
            job();
        });
    }

    // 0, or -1 when the connection has failed. The number is that of the client, who keeps it for
    // life.
    int write(int socket, KelmMsgBase* message);
    // Nothing is unwritten after it.
    void flush();

 private:
    // One job; the last one in the queue writes out what has gathered.
    class Turn : public NonCopyable {
     public:
        explicit Turn(ClientSender& sender) : m_sender(sender) {}
        ~Turn() {
            if (m_sender.m_pending.fetch_sub(1) == 1) m_sender.flush();
        }

     private:
        ClientSender& m_sender;
    };

    const uint64_t m_clientId;
    // Atomic: counts the jobs posted and not yet done; whoever posts and the thread both change it.
    std::atomic<uint64_t> m_pending{0};

    ThreadRole m_onThread;
    std::optional<MessageWriter> m_writer GUARDED_BY(m_onThread);
    ThreadPool m_pool;  // last: its jobs use all of the above
};

}  // namespace kelm
