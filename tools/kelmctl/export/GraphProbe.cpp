#include "tools/kelmctl/export/GraphProbe.h"

#include <algorithm>
#include <future>
#include <optional>
#include <stdexcept>
#include <utility>

#include "kelm/kelm.hpp"
#include "utils/TextHelper.h"
#include "utils/ThreadUtils.h"

namespace kelm::ctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kConnectTime{2000};
constexpr std::chrono::milliseconds kLoadTime{30000};
constexpr std::chrono::milliseconds kMostTime{10000};

}  // namespace

void ProbeResults::addSuccess(double seconds) {
    latencies.add(seconds);
    ++successes;
    isLastGood = true;
}

void ProbeResults::addFailure(const std::string& reason) {
    ++failures;
    isLastGood = false;
    why = escapeControls(reason);
}

// A connection with the graph loaded.
class GraphProbe::Session {
 public:
    explicit Session(const std::string& graph)
        : m_client(kelm::ClientOptions{.name = "kelmctl probe", .deadline = kConnectTime}),
          m_graph(m_client->loadFile(graph, {.name = graph, .deadline = kLoadTime})),
          m_pool(m_graph.makePool(0, 1)),
          m_slot(m_pool.acquire()) {}
    // Closed first: to give the graph back would wait for the task that is under way.
    ~Session() { m_client.reset(); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    std::future<kelm::Result> start(std::chrono::milliseconds deadline) {
        constexpr uint32_t kLowest = 0;
        return m_graph.start(m_slot, {.deadline = deadline, .priority = kLowest});
    }

 private:
    std::optional<kelm::Client> m_client;
    kelm::Graph m_graph;
    kelm::Pool m_pool;
    kelm::Slot m_slot;
};

GraphProbe::GraphProbe(std::string graph, std::chrono::milliseconds interval)
    : m_graph(std::move(graph)), m_interval(interval) {
    m_thread = std::thread([this] { routine(); });
}

GraphProbe::~GraphProbe() {
    m_stop.stop();
    m_thread.join();
}

ProbeResults GraphProbe::results() {
    MutexLock lock(m_mutex);
    ProbeResults results = m_results;
    results.graph = m_graph;
    return results;
}

void GraphProbe::routine() {
    ThreadUtils::setName("GraphProbe");
    auto next = Clock::now();
    do {
        try {
            probe();
        } catch (const std::exception& error) {
            m_session.reset();
            MutexLock lock(m_mutex);
            m_results.addFailure(error.what());
        }
        next = std::max(next + m_interval, Clock::now());
    } while (m_stop.waitUntil(next));
    m_session.reset();
}

void GraphProbe::probe() {
    constexpr std::chrono::milliseconds kLook{100};
    if (m_session == nullptr) m_session = std::make_unique<Session>(m_graph);
    const auto begin = Clock::now();
    std::future<kelm::Result> end = m_session->start(std::min(m_interval, kMostTime));
    while (end.wait_for(kLook) != std::future_status::ready) {
        if (m_stop.isStopped()) throw std::runtime_error("the exporter ends");
    }
    end.get().require();
    const std::chrono::duration<double> latency = Clock::now() - begin;
    MutexLock lock(m_mutex);
    m_results.addSuccess(latency.count());
}

}  // namespace kelm::ctl
