#pragma once

#include <cstdint>
#include <map>
#include <memory>

#include "utils/Mutex.h"

namespace IPC {
class ConnectionBase;
}

namespace kelm {

// How much work of each connection waits for the graph manager. Requests and the blobs in them are
// memory that a client piles up as fast as it can write, so a connection that is too far ahead is
// not read until enough of its work is done. The other connections are read meanwhile.
//
// Threads: any. Owns: a share of each connection that has work waiting, so that its number stays.
// Locks: m_mutex, then a connection's.
class GraphBacklog {
 public:
    // Stands for one request, which counts as done when this is destroyed.
    using Share = std::shared_ptr<const void>;

    // Counts a request that came over a connection, with a blob of so many bytes. Called on the
    // thread that reads the connection; null for a number that has no connection.
    Share add(int socket, uint64_t blobBytes) EXCLUDES(m_mutex);

    // Whether the peer has hung up, which a connection that is not read does not tell by itself.
    static bool hasHungUp(int socket);

    // A connection may wait with more than this until the next message: a blob may be larger.
    static constexpr uint64_t kMostRequests = 50;  // half of what the manager's queue holds
    static constexpr uint64_t kMostBytes = 64ULL << 20;

 private:
    struct Waiting {
        bool isTooMuch() const { return requests > kMostRequests || bytes > kMostBytes; }

        uint64_t requests = 0;
        uint64_t bytes = 0;
        bool paused = false;
    };
    using ConnectionPtr = std::shared_ptr<IPC::ConnectionBase>;

    void remove(const ConnectionPtr& connection, uint64_t blobBytes) EXCLUDES(m_mutex);

    Mutex m_mutex;
    std::map<ConnectionPtr, Waiting> m_waiting GUARDED_BY(m_mutex);
};

}  // namespace kelm
