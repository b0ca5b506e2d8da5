#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "utils/Mutex.h"
#include "utils/NonCopyable.h"
#include "utils/StepTrace.h"

namespace kelm {

class Backlog;
class ClientSender;

// The senders of all clients: one each, made at the client's first message, retired with the
// client's record, and destroyed when it has written what is queued.
//
// Threads: stop() and isStopped() on any; the others on the one that builds messages, so that a
// sender that it has found stays until it retires it.
// Owns: the senders. Locks: m_dedicatedMutex, then the client manager's; never held across the end
// of a sender.
class ClientSenders : public NonCopyable {
 public:
    explicit ClientSenders(StepTrace trace);
    ~ClientSenders();

    // The sender of the client, made now if it has none; null for an id without a client, and for a
    // client whose connection is closed, which this does itself when there is no thread to make.
    ClientSender* getDedicatedThreadPool(uint64_t clientId) EXCLUDES(m_dedicatedMutex);
    // The same, but raises std::system_error when there is no thread to make, and closes nothing.
    ClientSender* requireSender(uint64_t clientId) EXCLUDES(m_dedicatedMutex);
    // The same, but none is made.
    ClientSender* find(uint64_t clientId) EXCLUDES(m_dedicatedMutex);
    // Takes the client's sender out, or gives null; it lives until it is destroyed by the call
    // below.
    ClientSender* retire(uint64_t clientId) EXCLUDES(m_dedicatedMutex);
    // A retired one whose last job has ended.
    void destroy(const ClientSender* retired) EXCLUDES(m_dedicatedMutex);

    // From here on no sender is made.
    void stop() EXCLUDES(m_dedicatedMutex);
    bool isStopped() EXCLUDES(m_dedicatedMutex);
    // Gives all senders away, those retired too: each writes what is queued before it is destroyed.
    std::vector<std::unique_ptr<ClientSender>> takeAll() EXCLUDES(m_dedicatedMutex);

 private:
    // The backlog that the connection's other clients share, null if there are none.
    std::shared_ptr<Backlog> findBacklogUnsafe(int socket) const REQUIRES(m_dedicatedMutex);

    const StepTrace m_trace;
    Mutex m_dedicatedMutex;
    bool m_stopped GUARDED_BY(m_dedicatedMutex) = false;
    std::map<uint64_t, std::unique_ptr<ClientSender>> m_dedicatedThreadPools
        GUARDED_BY(m_dedicatedMutex);
    // Taken out of the map above and still writing.
    std::vector<std::unique_ptr<ClientSender>> m_retiredSenders GUARDED_BY(m_dedicatedMutex);
};

}  // namespace kelm
