#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>

#include "managers/GraphBacklog.h"
#include "records/Request.h"
#include "utils/ThreadRole.h"

namespace kelm {

class SerialPool;

// Brings requests to the graph manager's one thread. A request may take more than one turn there,
// and the thread does other work between two turns. Requests of one connection run one after the
// other, in order of arrival; connections whose requests are not done yet take turns.
//
// Threads: any may enqueue; turns are taken on the pool's thread.
// Owns: the requests until they are done. Borrows the pool, whose thread ends first.
class GraphTurns {
 public:
    // Takes one turn of a request; true when the request is done: answered, or moved to where it
    // waits. One that is left in place is destroyed unanswered.
    using Step = std::function<bool(Request& request)>;

    explicit GraphTurns(SerialPool& pool) : m_pool(pool) {}

    // Waits for room in the pool's queue. The request has a blob of so many bytes with it.
    void enqueue(Request request, uint64_t blobBytes, Step step);

 private:
    struct Job {
        // Takes a turn. A step that throws is done too, or it would block its connection.
        bool isDone();

        Request request;
        GraphBacklog::Share share;  // counts the job until it is done
        Step step;
    };

    void start(Job job) REQUIRES(m_onPool);
    void takeTurn() REQUIRES(m_onPool);
    void queueTurn() REQUIRES(m_onPool);

    SerialPool& m_pool;
    GraphBacklog m_backlog;  // before the requests, which are counted there
    ThreadRole m_onPool;
    std::map<int, std::deque<Job>> m_waiting GUARDED_BY(m_onPool);  // never an empty queue
    std::deque<int> m_order GUARDED_BY(m_onPool);  // the connections above, next one first
    bool m_turnQueued GUARDED_BY(m_onPool) = false;
};

}  // namespace kelm
