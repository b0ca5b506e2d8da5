// The graphs of a session: loading them, giving them up, and what these two do to each other.

#include <algorithm>
#include <exception>
#include <optional>
#include <system_error>
#include <utility>

#include "libkelm/Session.h"
#include "protocol/src/KelmError.h"
#include "utils/ThreadUtils.h"

namespace kelm::lib {

namespace {

using client::Client;
using client::Error;
using client::ErrorKind;
using client::Result;

constexpr std::chrono::milliseconds kUnloadTime{10000};
// One that runs, one that is being loaded meanwhile, and one that waits for them.
constexpr size_t kTasksADevice = 3;
constexpr size_t kMostDevices = 64;

Error sessionClosed() {
    return {ErrorKind::kNotConnected, 0, "the connection was closed; connect again"};
}

}  // namespace

// Counts a load while it lives.
class Session::LoadUnderWay {
 public:
    explicit LoadUnderWay(Session& session) : m_session(session) {
        MutexLock lock(m_session.m_mutex);
        ++m_session.m_loads;
    }
    ~LoadUnderWay() {
        MutexLock lock(m_session.m_mutex);
        --m_session.m_loads;
        m_session.forgetDestroysUnsafe();
        m_session.m_change.notifyAll();
    }
    LoadUnderWay(const LoadUnderWay&) = delete;
    LoadUnderWay& operator=(const LoadUnderWay&) = delete;

 private:
    Session& m_session;
};

// Takes a request to destroy a graph for answered when it ends, whatever has come of it.
class Session::DestroyUnderWay {
 public:
    DestroyUnderWay(Session& session, uint64_t connection, uint64_t graphId)
        : m_session(session), m_connection(connection), m_graphId(graphId) {}
    ~DestroyUnderWay() { m_session.endDestroy(m_connection, m_graphId); }
    DestroyUnderWay(const DestroyUnderWay&) = delete;
    DestroyUnderWay& operator=(const DestroyUnderWay&) = delete;

 private:
    Session& m_session;
    const uint64_t m_connection;
    const uint64_t m_graphId;
};

Result<Session::LoadedGraph> Session::load(const GraphSource& source, GraphQueue::Limits limits,
                                           client::Deadline deadline) {
    uint64_t connection = 0;
    std::shared_ptr<Client> current;
    {
        MutexLock lock(m_mutex);
        if (m_closing) return sessionClosed();
        current = m_client;
        connection = m_connection;
    }
    if (!current) return Error::connectionLost();
    m_timer.start();  // first: without it no task may be taken
    const Clock::time_point end = Clock::now() + deadline;
    const LoadUnderWay underWay(*this);
    // That the service still has if the two requests have reached it in the other order.
    std::optional<uint64_t> destroyed;
    while (true) {
        const Clock::time_point begun = Clock::now();
        auto graph = loadGraph(*current, source, timeUntil(end));
        if (!graph) {
            if (destroyed) gotLateGraph(*destroyed);
            return graph.error();
        }
        if (limits.window == 0) {
            const client::Deadline left = std::min(timeUntil(end), client::kDefaultDeadline);
            limits.window = kTasksADevice * countDevices(*current, left);
        }
        const uint64_t graphId = graph.value().id;
        auto entry = std::make_shared<Entry>();
        entry->queue =
            std::make_shared<GraphQueue>(shared_from_this(), limits, connection, graphId);
        entry->source = m_options.reconnects ? keepGraph(source) : GraphSource{};
        {
            MutexLock lock(m_mutex);
            const bool isDestroyed = wasDestroyedUnsafe(connection, graphId, begun, end);
            // A new connection does not know the graph, and has not found it among the others.
            if (m_closing || m_lost || m_connection != connection) return Error::connectionLost();
            if (!isDestroyed) {
                m_graphs.push_back(entry);
                return LoadedGraph{graph.value(), entry->queue};
            }
        }
        destroyed = graphId;
    }
}

Error Session::unload(const std::shared_ptr<GraphQueue>& queue) {
    queue->close(Error::canceled());
    const bool ended = queue->waitUntilEmpty(Clock::now() + kUnloadTime);
    std::shared_ptr<Client> current;
    uint64_t connection = 0;
    uint64_t graphId = 0;
    {
        MutexLock lock(m_mutex);
        std::erase_if(m_graphs, [&](const auto& entry) { return entry->queue == queue; });
        connection = queue->connection();
        graphId = queue->graphId();
        current = beginDestroyUnsafe(connection, graphId);
    }
    Error error = current ? destroy(*current, connection, graphId) : Error();
    if (error || ended) return error;
    return Error::timeout("a task of the graph");
}

bool Session::wasDestroyedUnsafe(uint64_t connection, uint64_t graphId, Clock::time_point begun,
                                 Clock::time_point end) {
    bool isDestroyed = false;
    while (true) {
        bool isPending = false;
        for (const Destroy& each : m_destroys) {
            if (each.connection != connection || each.graphId != graphId) continue;
            isDestroyed |= each.answered >= begun;
            isPending |= each.answered == Clock::time_point::max();
        }
        if (!isPending || m_closing || !m_change.waitUntil(m_mutex, end)) return isDestroyed;
    }
}

// A connection that has ended took the graph with it. The same graph loaded twice is one to the
// service, also when it is given up.
std::shared_ptr<Client> Session::beginDestroyUnsafe(uint64_t connection, uint64_t graphId) {
    const bool isShared = std::any_of(m_graphs.begin(), m_graphs.end(), [&](const auto& entry) {
        return entry->queue->connection() == connection && entry->queue->graphId() == graphId;
    });
    if (connection != m_connection || isShared || !m_client) return nullptr;
    m_destroys.push_back({connection, graphId, Clock::time_point::max()});
    return m_client;
}

Error Session::destroy(Client& client, uint64_t connection, uint64_t graphId) {
    Error error;
    {
        const DestroyUnderWay underWay(*this, connection, graphId);
        if (client.isConnected()) error = client.destroyGraph(graphId);
    }
    if (client.isConnected()) endDropped(client, connection, graphId);
    return error;
}

void Session::endDestroy(uint64_t connection, uint64_t graphId) {
    MutexLock lock(m_mutex);
    // One of those that are under way; which one is all the same.
    const auto ended = std::ranges::find_if(m_destroys, [&](const Destroy& each) {
        return each.connection == connection && each.graphId == graphId &&
               each.answered == Clock::time_point::max();
    });
    if (ended != m_destroys.end()) ended->answered = Clock::now();
    forgetDestroysUnsafe();
    m_change.notifyAll();
}

void Session::forgetDestroysUnsafe() {
    if (m_loads > 0) return;
    std::erase_if(m_destroys,
                  [](const auto& each) { return each.answered != Clock::time_point::max(); });
}

// With a graph that others go on using the service drops this client's tasks on all graphs, else
// those on this graph. Calls that have ended at their deadlines have left their slots to such
// tasks.
void Session::endDropped(Client& client, uint64_t connection, uint64_t graphId) {
    auto others = queues();
    std::erase_if(others, [](const auto& other) { return !other->hasSent(); });
    if (others.empty() && client.tasks(graphId, true).empty()) return;
    const Error error = client.queryBufferSize(graphId).error();
    if (error && error.kind() != ErrorKind::kService) return;  // it answers nothing
    const bool isShared = error.code() != KELM_ERROR_INVALID_GRAPH;
    const bool answers =
        !isShared || std::all_of(others.begin(), others.end(), [&](const auto& other) {
            return other->resendDropped(client, connection);
        });
    if (!answers || client.tasks(graphId, isShared).empty()) return;
    // For its place only, as there: behind its answer the numbers of all tasks are known.
    if (client.queryTask(0).error().kind() != ErrorKind::kService) return;
    (void)client.endDropped(client.tasks(graphId, isShared));
}

uint32_t Session::countDevices(Client& client, client::Deadline deadline) {
    const auto status = client.queryStatus(client::StatusPart::kOverview, deadline);
    if (!status) return 1;
    return std::clamp<uint32_t>(status.value().deviceCount, 1, kMostDevices);
}

void Session::gotLateGraph(uint64_t graphId) {
    MutexLock lock(m_mutex);
    if (m_closing) return;
    m_lateGraphs.push_back(graphId);
    m_change.notifyAll();
    if (m_unload.joinable()) return;
    try {
        m_unload = std::thread([this] { unloadRoutine(); });
    } catch (const std::system_error&) {
        // No thread is left: the next late answer tries again.
    }
}

// Not while loads are under way: one of them may be for the same graph, and keep it.
void Session::unloadRoutine() {
    ThreadUtils::setName("KelmUnload");
    MutexLock lock(m_mutex);
    while (!m_closing) {
        if (m_lateGraphs.empty() || m_loads > 0) {
            m_change.wait(m_mutex);
            continue;
        }
        const uint64_t connection = m_connection;
        const uint64_t graphId = m_lateGraphs.back();
        std::erase(m_lateGraphs, graphId);
        std::shared_ptr<Client> current = beginDestroyUnsafe(connection, graphId);
        lock.unlock();
        try {
            if (current) (void)destroy(*current, connection, graphId);
        } catch (const std::exception&) {
            // Without memory the graph stays until the connection ends.
        }
        current.reset();
        lock.lock();
    }
}

// One that the program has freed meanwhile is nobody's, unless another handle has the same graph:
// unload() did not find it at the service.
bool Session::reloadGraph(Client& client, uint64_t connection, const Entry& entry) {
    const LoadUnderWay underWay(*this);
    const Clock::time_point begun = Clock::now();
    const Clock::time_point end = begun + client::kGraphDeadline;
    const auto graph = loadGraph(client, entry.source, client::kGraphDeadline);
    if (!graph) return false;
    const uint64_t graphId = graph.value().id;
    bool isWanted = false;
    std::shared_ptr<Client> unwanted;
    {
        MutexLock lock(m_mutex);
        const bool isDestroyed = wasDestroyedUnsafe(connection, graphId, begun, end);
        isWanted = std::any_of(m_graphs.begin(), m_graphs.end(),
                               [&](const auto& each) { return each->queue == entry.queue; });
        if (isWanted && isDestroyed) return false;
        if (isWanted) {
            entry.queue->resume(connection, graphId);
        } else {
            unwanted = beginDestroyUnsafe(connection, graphId);
        }
    }
    if (isWanted) entry.queue->sendWaiting();
    if (unwanted) (void)destroy(*unwanted, connection, graphId);
    return true;
}

}  // namespace kelm::lib
