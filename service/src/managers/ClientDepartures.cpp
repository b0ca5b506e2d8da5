#include "managers/ClientDepartures.h"

namespace kelm {

bool ClientDepartures::start(uint64_t clientId, bool unregRspSent) {
    if (unregRspSent) m_unanswered.erase(clientId);
    // A phase that exists stays as it is: its response is still written, or fails, and is noted
    // either way.
    return m_unregisterPhaseMap.try_emplace(clientId, Phase{unregRspSent, false, false}).second;
}

bool ClientDepartures::noteUnregRspSent(uint64_t clientId) {
    return note(clientId, &Phase::unregRspSent);
}

bool ClientDepartures::noteAllTasksDone(uint64_t clientId) {
    return note(clientId, &Phase::allTasksDone);
}

bool ClientDepartures::noteAnswered(uint64_t clientId) {
    // Without an entry after a hang-up, which has dropped them all.
    const auto unanswered = m_unanswered.find(clientId);
    if (unanswered != m_unanswered.end() && --unanswered->second == 0) {
        m_unanswered.erase(unanswered);
    }
    const auto phase = m_unregisterPhaseMap.find(clientId);
    return phase != m_unregisterPhaseMap.end() && complete(clientId, phase->second);
}

bool ClientDepartures::note(uint64_t clientId, bool Phase::*notice) {
    const auto phase = m_unregisterPhaseMap.find(clientId);
    if (phase == m_unregisterPhaseMap.end()) return false;
    phase->second.*notice = true;
    return complete(clientId, phase->second);
}

bool ClientDepartures::complete(uint64_t clientId, Phase& phase) {
    if (!phase.unregRspSent || !phase.allTasksDone || phase.complete) return false;
    phase.complete = !m_unanswered.contains(clientId);
    return phase.complete;
}

}  // namespace kelm
