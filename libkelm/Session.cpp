#include "libkelm/Session.h"

#include <algorithm>
#include <random>
#include <system_error>
#include <utility>

#include "protocol/src/KelmError.h"
#include "utils/ThreadUtils.h"

namespace kelm::lib {

namespace {

using client::Client;
using client::Error;
using client::ErrorKind;
using client::Result;

constexpr std::chrono::milliseconds kFirstAttemptPause{20};
constexpr std::chrono::milliseconds kLongestAttemptPause{1000};
constexpr std::chrono::milliseconds kUnloadTime{10000};
constexpr client::Deadline kLeaveDeadline{1000};
// One that runs, one that is being loaded meanwhile, and one that waits for them.
constexpr size_t kTasksADevice = 3;
constexpr size_t kMostDevices = 64;

Error sessionClosed() {
    return {ErrorKind::kNotConnected, 0, "the connection was closed; connect again"};
}

client::Deadline timeUntil(Session::Clock::time_point end) {
    const auto left = std::chrono::ceil<client::Deadline>(end - Session::Clock::now());
    return std::max(left, client::Deadline(1));
}

// Clients that lost the same service should not come back at the same moment.
std::chrono::milliseconds withJitter(std::chrono::milliseconds pause) {
    thread_local std::minstd_rand random(std::random_device{}());
    std::uniform_int_distribution<int64_t> range(pause.count() / 2, pause.count() * 3 / 2);
    return std::chrono::milliseconds(range(random));
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

Session::Session(const SessionOptions& options)
    : m_options(options),
      m_callbacks(options.dispatches),
      m_timer([this](Clock::time_point now) { return tick(now); }) {}

Session::~Session() { close(); }

Result<std::shared_ptr<Session>> Session::connect(const SessionOptions& options) {
    const std::shared_ptr<Session> session(new Session(options));
    auto opened = session->open(options.deadline);
    if (!opened) return opened.error();
    session->install(std::move(opened).value());
    if (options.reconnects) {
        session->m_reconnect = std::thread([raw = session.get()] { raw->reconnectRoutine(); });
    }
    return session;
}

// A Client may not be destroyed by its own threads, which get at it through m_client as all others.
Result<std::unique_ptr<Client>> Session::open(client::Deadline deadline) {
    const Clock::time_point end = Clock::now() + deadline;
    auto client = Client::connect(m_options.socketPath, deadline);
    if (!client) return client;
    if (m_options.onWarning != nullptr) {
        client.value()->onWarning(
            [warn = m_options.onWarning, user = m_options.user](const std::string& text) {
                Callbacks::runInside([&] { warn(text.c_str(), user); });
            });
    }
    client.value()->onLost([this] { lost(); });
    client.value()->onLateGraph([this](uint64_t graphId) { gotLateGraph(graphId); });
    setDialing(client.value().get());
    const Error error = client.value()->registerClient(m_options.name, timeUntil(end));
    setDialing(nullptr);
    if (error) return error;
    return client;
}

void Session::install(std::unique_ptr<Client> client) {
    const auto released = [this](Client*) {
        MutexLock lock(m_mutex);
        m_released = true;
        m_change.notifyAll();
    };
    MutexLock lock(m_mutex);
    ++m_connection;
    m_owned = std::move(client);
    m_released = false;
    m_client = std::shared_ptr<Client>(m_owned.get(), released);
    m_lost = !m_owned->isConnected();
    m_lateGraphs.clear();  // they went with their connection
}

void Session::retire() {
    std::shared_ptr<Client> last;
    std::unique_ptr<Client> owned;
    {
        MutexLock lock(m_mutex);
        last.swap(m_client);
    }
    last.reset();  // not under the mutex, which its end takes
    {
        MutexLock lock(m_mutex);
        while (!m_released) m_change.wait(m_mutex);
        owned = std::move(m_owned);
    }
}

std::shared_ptr<Client> Session::client() const {
    MutexLock lock(m_mutex);
    return m_client;
}

std::shared_ptr<Client> Session::client(uint64_t connection) const {
    MutexLock lock(m_mutex);
    return m_connection == connection ? m_client : nullptr;
}

// A load may take longer than a close.
void Session::setDialing(Client* client) {
    MutexLock lock(m_mutex);
    m_dialing = client;
    if (m_closing && client != nullptr) client->hangUp();
}

bool Session::isConnected() const {
    MutexLock lock(m_mutex);
    return m_client && !m_lost && m_owned->isConnected();
}

uint64_t Session::clientId() const {
    const std::shared_ptr<Client> current = client();
    return current ? current->clientId() : 0;
}

// On a thread of the connection, when all that it had has ended.
void Session::lost() {
    {
        MutexLock lock(m_mutex);
        m_lost = true;
        m_change.notifyAll();
        if (m_closing || !m_client) return;
    }
    for (const auto& queue : queues()) {
        if (m_options.reconnects) {
            queue->suspend();
        } else {
            queue->close(Error::connectionLost());
        }
    }
    if (!m_options.reconnects) tellProgram(false);
}

void Session::tellProgram(bool up) {
    if (m_options.onConnection == nullptr) return;
    m_callbacks.run(ConnectionChange{m_options.onConnection, m_options.user, up});
}

void Session::close() {
    std::shared_ptr<Client> current;
    {
        MutexLock lock(m_mutex);
        if (m_closing) return;
        m_closing = true;
        m_change.notifyAll();
        if (m_dialing != nullptr) m_dialing->hangUp();
    }
    if (m_reconnect.joinable()) m_reconnect.join();
    for (const auto& queue : queues()) queue->close(Error::connectionLost());
    current = client();
    // The service takes a client that only hangs up for a failed one.
    if (current && current->isConnected()) leave(*current);
    if (current) current->hangUp();
    current.reset();
    std::thread unload;
    {
        MutexLock lock(m_mutex);
        unload.swap(m_unload);
    }
    if (unload.joinable()) unload.join();
    retire();
    m_timer.stop();
    (void)tick(Clock::now());  // in place of the timer
    (void)m_callbacks.runWaiting();
    std::vector<std::shared_ptr<const Entry>> graphs;  // they share this object
    MutexLock lock(m_mutex);
    graphs.swap(m_graphs);
}

// The service hangs up once it has written what it had for this client. Hung up on, it would tell
// of a failed write.
void Session::leave(Client& client) {
    const Clock::time_point end = Clock::now() + kLeaveDeadline;
    if (client.unregister(kLeaveDeadline)) return;
    MutexLock lock(m_mutex);
    while (!m_lost && m_change.waitUntil(m_mutex, end)) {
    }
}

Result<Session::LoadedGraph> Session::load(GraphSource source, GraphQueue::Limits limits,
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
    while (true) {
        const Clock::time_point begun = Clock::now();
        auto graph = loadGraph(*current, source, timeUntil(end));
        if (!graph) return graph.error();
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
        if (Clock::now() < end) continue;
        gotLateGraph(graphId);  // the service may have had the two requests in the other order
        return Error::timeout("create graph");
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
    const Error error = current ? destroy(*current, connection, graphId) : Error();
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
        if (current) (void)destroy(*current, connection, graphId);
        current.reset();
        lock.lock();
    }
}

void Session::endDestroy(uint64_t connection, uint64_t graphId) {
    MutexLock lock(m_mutex);
    for (Destroy& each : m_destroys) {
        if (each.connection != connection || each.graphId != graphId) continue;
        each.answered = std::min(each.answered, Clock::now());
    }
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

std::vector<std::shared_ptr<GraphQueue>> Session::queues() const {
    std::vector<std::shared_ptr<GraphQueue>> queues;
    MutexLock lock(m_mutex);
    for (const auto& entry : m_graphs) queues.push_back(entry->queue);
    return queues;
}

Session::Clock::time_point Session::tick(Clock::time_point now) {
    Clock::time_point next = Clock::time_point::max();
    for (const auto& queue : queues()) next = std::min(next, queue->tick(now));
    return next;
}

void Session::reconnectRoutine() {
    ThreadUtils::setName("KelmReconnect");
    while (waitForLoss()) {
        tellProgram(false);
        retire();
        reconnect();
    }
}

bool Session::waitForLoss() {
    MutexLock lock(m_mutex);
    while (!m_lost && !m_closing) m_change.wait(m_mutex);
    return !m_closing;
}

bool Session::pause(std::chrono::milliseconds time) {
    const Clock::time_point end = Clock::now() + time;
    MutexLock lock(m_mutex);
    while (!m_closing && m_change.waitUntil(m_mutex, end)) {
    }
    return !m_closing;
}

void Session::reconnect() {
    std::chrono::milliseconds time = kFirstAttemptPause;
    while (pause(withJitter(time))) {
        time = std::min(time * 2, kLongestAttemptPause);
        auto opened = open(m_options.deadline);
        if (!opened) continue;
        install(std::move(opened).value());
        if (reloadGraphs()) return;
        retire();
    }
}

// One after the other; those that are added meanwhile come through the new connection. A graph that
// the service refuses now, having no device for it yet perhaps, is tried again while the connection
// lasts; its tasks wait until their deadlines.
bool Session::reloadGraphs() {
    std::chrono::milliseconds time = kFirstAttemptPause;
    while (true) {
        std::vector<std::shared_ptr<const Entry>> missing;
        std::shared_ptr<Client> current;
        uint64_t connection = 0;
        {
            MutexLock lock(m_mutex);
            if (m_closing) return true;
            if (m_lost) return false;
            connection = m_connection;
            current = m_client;
            for (const auto& entry : m_graphs) {
                if (entry->queue->connection() != connection) missing.push_back(entry);
            }
        }
        if (missing.empty()) {
            tellProgram(true);
            return true;
        }
        bool allLoaded = true;
        setDialing(current.get());
        for (const auto& entry : missing) {
            allLoaded = reloadGraph(*current, connection, *entry) && allLoaded;
        }
        setDialing(nullptr);
        current.reset();
        if (allLoaded) continue;
        if (!pause(withJitter(time))) return true;
        time = std::min(time * 2, kLongestAttemptPause);
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
