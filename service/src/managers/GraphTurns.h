#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>

#include "records/Request.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"
#include "utils/ThreadRole.h"

namespace IPC {
class ConnectionBase;
}

namespace kelm {

class SerialPool;

// Brings requests to the graph manager's one thread. A request may take more than one turn there,
// and the thread does other work between two turns. Requests of one connection run one after the
// other, in order of arrival; connections whose requests are not done yet take turns.
//
// Requests and the blobs in them are memory that a client piles up as fast as it can write, so a
// connection that is too far ahead is not read until enough of its work is done. The other
// connections are read meanwhile.
//
// Threads: requests come from the thread that reads their connection; turns are taken on the
// pool's. Owns: the requests until they are done, and a share of each connection that has some.
// Borrows the pool, whose thread ends first. Locks: m_mutex, then a connection's.
class GraphTurns : public NonCopyable {
 public:
    // Takes one turn of a request; true when the request is done: answered, or moved to where it
    // waits. One that is left in place is destroyed unanswered.
    using Step = std::function<bool(Request& request)>;

    explicit GraphTurns(SerialPool& pool) : m_pool(pool) {}

    // Waits for room in the pool's queue. The request has a blob of so many bytes with it.
    void enqueue(Request request, uint64_t blobBytes, Step step) EXCLUDES(m_mutex);

    // Whether the peer has hung up, which a connection that is not read does not tell by itself.
    static bool hasHungUp(int socket);

    // A connection may wait with more than this until the next message: a blob may be larger.
    static constexpr uint64_t kMostRequests = 50;  // half of what the manager's queue holds
    static constexpr uint64_t kMostBytes = 64ULL << 20;

 private:
    using ConnectionPtr = std::shared_ptr<IPC::ConnectionBase>;
    // Counts one request as unfinished, until it is destroyed.
    using Share = std::shared_ptr<const void>;

    struct Job {
        // Takes a turn. A step that throws is done too, or it would block its connection.
        bool isDone();

        Request request;
        Share share;
        Step step;
    };

    // What of a connection's work is not done yet.
    struct Unfinished {
        bool isTooMuch() const { return requests > kMostRequests || bytes > kMostBytes; }

        uint64_t requests = 0;
        uint64_t bytes = 0;
        bool paused = false;
    };

    // Null for a number that has no connection.
    Share count(int socket, uint64_t blobBytes) EXCLUDES(m_mutex);
    void uncount(const ConnectionPtr& connection, uint64_t blobBytes) EXCLUDES(m_mutex);

    void start(Job job) REQUIRES(m_onPool);
    void takeTurn() REQUIRES(m_onPool);
    void queueTurn() REQUIRES(m_onPool);

    SerialPool& m_pool;

    Mutex m_mutex;
    // Before the requests, whose shares count in it.
    std::map<ConnectionPtr, Unfinished> m_unfinished GUARDED_BY(m_mutex);

    ThreadRole m_onPool;
    std::map<int, std::deque<Job>> m_waiting GUARDED_BY(m_onPool);  // never an empty queue
    std::deque<int> m_order GUARDED_BY(m_onPool);  // the connections above, next one first
    bool m_turnQueued GUARDED_BY(m_onPool) = false;
};

}  // namespace kelm
