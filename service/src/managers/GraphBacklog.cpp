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
        // Whoever has shut it down meanwhile closes it too, and wants no more of it.
        if (caughtUp && connection->connected()) connection->unblockPoller();
    } catch (const std::exception& error) {
        LOG_ERROR("Error: a client is closed, since it cannot be read again: %s", error.what());
        // Its events stay blocked, so the listen thread would never see it go.
        ClientManager::instance().closeClient(connection->getSimulateFD());
    }
}

bool GraphBacklog::hasHungUp(int socket) {
    const auto connection = IPC::ConnectionBase::findConnection(socket);
    if (!connection || !connection->connected()) return true;
    // Only the end of both directions: one may have been ended by this process, which is stopping.
    pollfd state{connection->nativeHandle(), 0, 0};
    return ::poll(&state, 1, 0) == 1 && (state.revents & (POLLHUP | POLLNVAL)) != 0;
}

}  // namespace kelm
