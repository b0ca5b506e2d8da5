#include "managers/GraphTurns.h"

#include <poll.h>

#include <exception>
#include <utility>

#include "managers/ClientManager.h"
#include "utils/IPC.h"
#include "utils/Log.h"
#include "utils/SerialPool.h"

namespace kelm {

bool GraphTurns::Job::isDone() {
    try {
        return step(request);
    } catch (const std::exception& error) {
        LOG_ERROR("Error: a graph request ended with an exception: %s", error.what());
        request = Request();  // here, so that it knows of the exception
        return true;
    }
}

// The request is counted before it waits for room: the reading thread stops reading the connection
// as soon as that is too far ahead.
void GraphTurns::enqueue(Request request, uint64_t blobBytes, Step step) {
    Share share = count(request.getSocket(), blobBytes);
    m_pool.post([this, job = Job{std::move(request), std::move(share), std::move(step)}]() mutable {
        m_onPool.assertHeld();
        start(std::move(job));
        queueTurn();
    });
}

GraphTurns::Share GraphTurns::count(int socket, uint64_t blobBytes) {
    ConnectionPtr connection = IPC::ConnectionBase::findConnection(socket);
    if (!connection) return nullptr;
    // The share below holds the connection, so that its number names no other one until the
    // request is done: m_waiting is kept by number.
    {
        MutexLock lock(m_mutex);
        Unfinished& work = m_unfinished[connection];
        ++work.requests;
        work.bytes += blobBytes;
        if (work.isTooMuch() && !work.paused) {
            work.paused = true;
            connection->blockPoller();
        }
    }
    const void* const token = connection.get();
    return {token, [this, connection = std::move(connection), blobBytes](const void*) {
                uncount(connection, blobBytes);
            }};
}

void GraphTurns::uncount(const ConnectionPtr& connection, uint64_t blobBytes) {
    try {
        MutexLock lock(m_mutex);
        const auto entry = m_unfinished.find(connection);
        Unfinished& work = entry->second;
        --work.requests;
        work.bytes -= blobBytes;
        const bool caughtUp = work.paused && !work.isTooMuch();
        if (caughtUp) work.paused = false;
        if (work.requests == 0) m_unfinished.erase(entry);
        // Also one that a sender which could not write has shut down: its end is told by an event.
        if (caughtUp) connection->unblockPoller();
    } catch (const std::exception& error) {
        LOG_ERROR("Error: a client is closed, since it cannot be read again: %s", error.what());
        // Its events stay blocked, so the listen thread would never hear of a hang-up.
        ClientManager::instance().closeClient(connection->getSimulateFD());
    }
}

bool GraphTurns::hasHungUp(int socket) {
    const auto connection = IPC::ConnectionBase::findConnection(socket);
    if (!connection || !connection->connected()) return true;
    // Only the end of both directions counts: one of them this process itself ends when it stops.
    pollfd state{connection->nativeHandle(), 0, 0};
    return ::poll(&state, 1, 0) == 1 && (state.revents & (POLLHUP | POLLNVAL)) != 0;
}

void GraphTurns::start(Job job) {
    const int connection = job.request.getSocket();
    const auto waiting = m_waiting.find(connection);
    if (waiting != m_waiting.end()) {  // requests of one connection stay in order
        waiting->second.push_back(std::move(job));
    } else if (!job.isDone()) {
        m_waiting[connection].push_back(std::move(job));
        m_order.push_back(connection);
    }
}

void GraphTurns::takeTurn() {
    const int connection = m_order.front();
    m_order.pop_front();
    const auto waiting = m_waiting.find(connection);
    // The next request of the connection starts in a later turn, behind those of the other
    // connections.
    if (waiting->second.front().isDone()) waiting->second.pop_front();
    if (waiting->second.empty()) {
        m_waiting.erase(waiting);
    } else {
        m_order.push_back(connection);
    }
}

// At most one turn is in the pool's queue, behind what was queued before: other work of the thread
// waits for one slice of a blob, not for all of it.
void GraphTurns::queueTurn() {
    if (m_order.empty() || m_turnQueued) return;
    m_turnQueued = true;
    m_pool.postNotice([this] {
        m_onPool.assertHeld();
        m_turnQueued = false;
        takeTurn();
        queueTurn();
    });
}

}  // namespace kelm
