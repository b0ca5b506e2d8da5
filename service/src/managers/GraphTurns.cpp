#include "managers/GraphTurns.h"

#include <exception>
#include <utility>

#include "utils/Log.h"
#include "utils/ThreadPool.h"

namespace kelm {
namespace {

// One that throws is done, and must not hold those behind it.
bool isDone(const GraphTurns::Step& step) {
    try {
        return step();
    } catch (const std::exception& error) {
        LOG_ERROR("Error: a graph request ended with an exception: %s", error.what());
        return true;
    }
}

}  // namespace

void GraphTurns::enqueue(int connection, uint64_t blobBytes, Step step) {
    Step counted = [share = m_backlog.add(connection, blobBytes), step = std::move(step)] {
        return step();
    };
    m_pool.post([this, connection, step = std::move(counted)]() mutable {
        m_onPool.assertHeld();
        start(connection, std::move(step));
        queueTurn();
    });
}

void GraphTurns::start(int connection, Step step) {
    const auto waiting = m_waiting.find(connection);
    if (waiting != m_waiting.end()) {
        waiting->second.push_back(std::move(step));
    } else if (!isDone(step)) {
        m_waiting[connection].push_back(std::move(step));
        m_order.push_back(connection);
    }
}

void GraphTurns::takeTurn() {
    const int connection = m_order.front();
    m_order.pop_front();
    const auto waiting = m_waiting.find(connection);
    if (isDone(waiting->second.front())) waiting->second.pop_front();
    if (waiting->second.empty()) {
        m_waiting.erase(waiting);
    } else {
        m_order.push_back(connection);
    }
}

// Behind what is queued now, so that a turn is never more than one slice away from other work.
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
