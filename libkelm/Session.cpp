#include "libkelm/Session.h"

#include <algorithm>
#include <random>
#include <utility>

#include "utils/ThreadUtils.h"

namespace kelm::lib {

namespace {

using client::Client;
using client::Error;
using client::Result;

constexpr std::chrono::milliseconds kFirstAttemptPause{20};
constexpr std::chrono::milliseconds kLongestAttemptPause{1000};
constexpr client::Deadline kLeaveDeadline{1000};

// Clients that lost the same service should not come back at the same moment.
std::chrono::milliseconds withJitter(std::chrono::milliseconds pause) {
    thread_local std::minstd_rand random(std::random_device{}());
    std::uniform_int_distribution<int64_t> range(pause.count() / 2, pause.count() * 3 / 2);
    return std::chrono::milliseconds(range(random));
}

}  // namespace

client::Deadline Session::timeUntil(Clock::time_point end) {
    const auto left = std::chrono::ceil<client::Deadline>(end - Clock::now());
    return std::max(left, client::Deadline(1));
}

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

}  // namespace kelm::lib
