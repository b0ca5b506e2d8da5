#include "managers/GraphTurns.h"

#include <exception>
#include <utility>

#include "utils/Log.h"
#include "utils/SerialPool.h"

namespace kelm {

bool GraphTurns::Job::isDone() {
    try {
        return step(request);
    } catch (const std::exception& error) {
        LOG_ERROR("Error: a graph request ended with an exception: %s", error.what());
        return true;
    }
}

// The request is counted before it waits for room: the reading thread stops reading the connection
// as soon as that is too far ahead.
void GraphTurns::enqueue(Request request, uint64_t blobBytes, Step step) {
    GraphBacklog::Share share = m_backlog.add(request.getSocket(), blobBytes);
    m_pool.post([this, job = Job{std::move(request), std::move(share), std::move(step)}]() mutable {
        m_onPool.assertHeld();
        start(std::move(job));
        queueTurn();
    });
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
