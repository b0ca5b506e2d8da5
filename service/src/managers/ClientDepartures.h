#pragma once

#include <cstdint>
#include <map>

namespace kelm {

// How far each departing client is. Its record may be destroyed when its unregister response is
// out, its last task has ended and no request keeps it, whichever comes last.
//
// Not thread-safe: the client manager guards it with its mutex.
class ClientDepartures {
 public:
    // A request keeps the record of a client that does not depart yet, until noteAnswered().
    void keep(uint64_t clientId) { ++m_unanswered[clientId]; }

    // `unregRspSent`: the peer takes no answer, neither this response nor another, so requests keep
    // the record no longer. False for a client that departs already, of which noteAnswered() then
    // tells whether it waited for nothing else.
    bool start(uint64_t clientId, bool unregRspSent);

    // Each true when it was the last thing that the departure waited for: once for each client.
    // A client that does not depart, or has departed, is left alone.
    bool noteUnregRspSent(uint64_t clientId);
    bool noteAllTasksDone(uint64_t clientId);
    bool noteAnswered(uint64_t clientId);

    // The record is destroyed.
    void finish(uint64_t clientId) { m_unregisterPhaseMap.erase(clientId); }

 private:
    struct Phase {
        bool unregRspSent = false;
        bool allTasksDone = false;
        bool complete = false;  // has been told
    };

    bool note(uint64_t clientId, bool Phase::*notice);
    bool complete(uint64_t clientId, Phase& phase);

    std::map<uint64_t, Phase> m_unregisterPhaseMap;
    // How many requests keep a client's record, without entries of 0.
    std::map<uint64_t, uint32_t> m_unanswered;
};

}  // namespace kelm
