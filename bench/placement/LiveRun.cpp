#include "bench/placement/LiveRun.h"

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <thread>

#include "bench/placement/Arrivals.h"
#include "client/Client.h"
#include "client/EventReader.h"
#include "tests/fakes/ServiceProcess.h"
#include "utils/Mutex.h"

namespace kelm {

namespace {

using Clock = std::chrono::steady_clock;
using client::Result;
using client::take;

constexpr size_t kSlots = 4096;     // of a client, more than tasks that wait
constexpr double kLateLoads = 5.0;  // seconds

double secondsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

Clock::duration span(double seconds) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

int64_t millis(double seconds) { return static_cast<int64_t>(seconds * 1e3 + 0.5); }

std::string configuration(const Scenario& scenario, Contender contender) {
    const nlohmann::json keys = {
        {"debug_settings", {{"debug_service", false}}},
        {"fake_device_settings",
         {{"fake_device_number", scenario.speeds.size()},
          {"alloc_graph_latency", millis(scenario.loadTime)},
          {"load_tensor_latency", 0},
          {"get_result_latency", millis(scenario.graphs.front().taskTime)}}},
        {"scheduler_config",
         nlohmann::json::array({{{"subclass", 0}, {"max_graph_per_device", scenario.slots}}})},
        {"service_settings",
         {{"max_inference_number", scenario.inFlight},
          {"server_max_task_number", scenario.waitLimit},
          {"task_scheduler", contender == ADAPTIVE_FAIR ? "balanced" : "polling"}}},
        {"device_settings",
         {{"shared_scheduler", contender == SQUEEZE ? "squeeze2" : "adaptive"}}}};
    return keys.dump();
}

// One graph of the scenario and its client. Tasks end on threads of the client.
class LiveGraph {
 public:
    LiveGraph(const std::string& socket, const Scenario& scenario, size_t index)
        : m_traffic(scenario.graphs[index]),
          m_arrivals(m_traffic, scenario.seed * 1000003 + index),
          m_client(take(client::Client::connect(socket))) {
        const std::string name = "graph" + std::to_string(index);
        if (client::Error error = m_client->registerClient(name)) {
            throw std::runtime_error(error.text());
        }
        const std::string blob = name + std::string(1000, 'g');
        client::GraphOptions options;
        options.name = name;
        m_graph = take(m_client->createGraph(std::as_bytes(std::span(blob)), options));
        m_pool =
            std::make_unique<client::TensorPool>(m_graph.inputSize, m_graph.outputSize, kSlots);
        const auto tenths = static_cast<size_t>(scenario.seconds * 10.0) + 1;
        MutexLock lock(m_mutex);
        m_outcome.doneInTenth.resize(tenths);
        m_outcome.workInTenth.resize(tenths);
    }

    // Sends until the end, at its moments.
    void run(Clock::time_point start, Clock::time_point end) {
        for (double next = m_arrivals.next();; next = m_arrivals.next()) {
            if (next < 0.0) continue;
            if (next >= secondsBetween(start, end)) break;
            const Clock::time_point moment = start + span(next);
            std::this_thread::sleep_until(moment);
            send(start, moment, end);
        }
        std::this_thread::sleep_until(end);
    }

    // What had ended by the end of the load.
    GraphOutcome finish() {
        m_client.reset();  // tasks end
        MutexLock lock(m_mutex);
        return std::move(m_outcome);
    }

 private:
    static size_t tenthOf(Clock::time_point start, Clock::time_point moment) {
        return static_cast<size_t>(secondsBetween(start, moment) * 10.0);
    }

    void send(Clock::time_point start, Clock::time_point moment, Clock::time_point end) {
        const std::shared_ptr<client::TensorSlot> slot = take(m_pool->acquire());
        client::InferRequest request;
        request.graphId = m_graph.id;
        request.input = slot->inputTensor();
        request.output = slot->outputTensor();
        {
            MutexLock lock(m_mutex);
            ++m_outcome.arrived;
            m_outcome.workInTenth[tenthOf(start, moment)] += m_traffic.taskTime;
        }
        m_client->inferAsync(
            request,
            [=, this](const client::InferResult& result) {
                const Clock::time_point now = Clock::now();
                if (now < end) note(result, start, moment, now);
            },
            {}, client::Deadline(1000 * 1000));
    }

    void note(const client::InferResult& result, Clock::time_point start, Clock::time_point moment,
              Clock::time_point now) {
        MutexLock lock(m_mutex);
        if (result.error) {
            ++m_outcome.refused;
            return;
        }
        ++m_outcome.done;
        ++m_outcome.doneInTenth[tenthOf(start, now)];
        m_outcome.latencies.push_back(static_cast<float>(secondsBetween(moment, now) * 1e3));
    }

    const GraphTraffic m_traffic;
    Arrivals m_arrivals;
    Mutex m_mutex;
    GraphOutcome m_outcome GUARDED_BY(m_mutex);
    client::Graph m_graph;
    std::unique_ptr<client::TensorPool> m_pool;
    std::unique_ptr<client::Client> m_client;
};

// Counts the loads that the service tells of, from now until it is asked.
class LoadCounter {
 public:
    explicit LoadCounter(const std::string& socket)
        : m_events(take(client::EventReader::connect(socket))), m_thread([this] { read(); }) {}
    ~LoadCounter() {
        m_events->interrupt();
        if (m_thread.joinable()) m_thread.join();
    }

    void count(Clock::time_point start, Outcome& outcome) {
        m_events->interrupt();
        m_thread.join();
        const double begin = std::chrono::duration<double>(start.time_since_epoch()).count();
        for (const double moment : m_loads) {
            if (moment < begin) continue;
            ++outcome.loads;
            if (moment - begin > kLateLoads) ++outcome.lateLoads;
        }
    }

 private:
    void read() {
        while (true) {
            const Result<std::string> line = m_events->read(client::Deadline(1000 * 1000));
            if (!line) return;
            const nlohmann::json event = nlohmann::json::parse(line.value());
            const std::string action = event.value("action", "");
            if (action == "loaded" || action == "moved") m_loads.push_back(event["mono"]);
        }
    }

    const std::unique_ptr<client::EventReader> m_events;
    std::vector<double> m_loads;  // moments, the thread's until it has ended
    std::thread m_thread;
};

}  // namespace

Outcome runLive(const Scenario& scenario, Contender contender) {
    ServiceProcess service(configuration(scenario, contender));
    service.start();
    if (!service.waitReady()) throw std::runtime_error("the service did not start");
    LoadCounter loads(service.runDir() + "/kelm_events.sock");
    std::vector<std::unique_ptr<LiveGraph>> graphs;
    for (size_t i = 0; i < scenario.graphs.size(); ++i) {
        graphs.push_back(std::make_unique<LiveGraph>(service.socketPath(), scenario, i));
    }

    const Clock::time_point start = Clock::now() + span(scenario.warmUp);
    const Clock::time_point end = start + span(scenario.seconds);
    std::vector<std::thread> senders;
    for (const auto& graph : graphs) {
        senders.emplace_back([&graph, start, end] { graph->run(start, end); });
    }
    for (std::thread& sender : senders) sender.join();

    Outcome outcome;
    loads.count(start, outcome);
    for (size_t i = 0; i < graphs.size(); ++i) {
        outcome.graphs.push_back(graphs[i]->finish());
        outcome.throughput += static_cast<double>(outcome.graphs.back().done) *
                              scenario.graphs[i].taskTime / scenario.seconds;
    }
    // The devices do not tell; this is what their results stand for.
    outcome.busy.assign(scenario.speeds.size(), outcome.throughput * scenario.seconds /
                                                    static_cast<double>(scenario.speeds.size()));
    if (!service.stop(std::chrono::seconds(20)))
        throw std::runtime_error("the service ended badly");
    return outcome;
}

Hindsight findBestLive(Scenario scenario, const Outcome& outcome) {
    scenario.speeds.assign(scenario.speeds.size() * scenario.slots, 1.0);
    scenario.slots = 1;
    return findBest(scenario, outcome);
}

}  // namespace kelm
