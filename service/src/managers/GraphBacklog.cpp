#include "managers/GraphBacklog.h"

#include <poll.h>

#include <exception>

#include "managers/ClientManager.h"
#include "utils/IPC.h"
#include "utils/Log.h"

namespace kelm {

GraphBacklog::Share GraphBacklog::add(int socket, uint64_t blobBytes) {
    ConnectionPtr connection = IPC::ConnectionBase::findConnection(socket);
    if (!connection) return nullptr;
    // The share below holds the connection, so that its number names no other one until the
    // request is done: the queues of GraphTurns are kept by number.
    {
        MutexLock lock(m_mutex);
        Waiting& waiting = m_waiting[connection];
        ++waiting.requests;
        waiting.bytes += blobBytes;
        if (waiting.isTooMuch() && !waiting.paused) {
            waiting.paused = true;
            connection->blockPoller();
        }
    }
    const void* const token = connection.get();
    return {token, [this, connection = std::move(connection), blobBytes](const void*) {
                remove(connection, blobBytes);
            }};
}

void GraphBacklog::remove(const ConnectionPtr& connection, uint64_t blobBytes) {
    try {
        MutexLock lock(m_mutex);
        const auto entry = m_waiting.find(connection);
        Waiting& waiting = entry->second;
        --waiting.requests;
        waiting.bytes -= blobBytes;
        const bool caughtUp = waiting.paused && !waiting.isTooMuch();
        if (caughtUp) waiting.paused = false;
        if (waiting.requests == 0) m_waiting.erase(entry);
        // A connection that was shut down meanwhile is closed by the same code, and stays unread.
        if (caughtUp && connection->connected()) connection->unblockPoller();
    } catch (const std::exception& error) {
        LOG_ERROR("Error: a client is closed, since it cannot be read again: %s", error.what());
        // Its events stay blocked, so the listen thread would never hear of a hang-up.
        ClientManager::instance().closeClient(connection->getSimulateFD());
    }
}

bool GraphBacklog::hasHungUp(int socket) {
    const auto connection = IPC::ConnectionBase::findConnection(socket);
    if (!connection || !connection->connected()) return true;
    // Only the end of both directions counts: one of them this process itself ends when it stops.
    pollfd state{connection->nativeHandle(), 0, 0};
    return ::poll(&state, 1, 0) == 1 && (state.revents & (POLLHUP | POLLNVAL)) != 0;
}

}  // namespace kelm
