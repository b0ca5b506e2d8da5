// kelm-prove-client: a program on the client library that keeps tasks in flight on each of its
// graphs, counts how every one of them ends and, unless it is told not to, checks every byte of
// their results against the simulator's model. It goes on after errors, until SIGTERM or its time,
// and then waits for what is in flight.
//
// Ends with a line of JSON: the errors by their codes. Status 0 if nothing was wrong, unanswered,
// ended twice or never; 1 if something was; 2 if it could not start.

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kelm/kelm.h"
#include "tools/prove/Counts.h"
#include "tools/simulator/Model.h"

namespace kelm::prove {
namespace {

using Clock = std::chrono::steady_clock;
constexpr uint8_t kPoison = 0xa5;
constexpr auto kRetry = std::chrono::milliseconds(5);
constexpr size_t kPlainBytes = 64;  // of the tensors of those who do not check

struct Options {
    std::string name = "prove";
    std::vector<std::string> graphs;
    std::string counts;
    int depth = 4;  // of each graph
    double seconds = 1e9;
    int deadline = 60000;
    uint64_t tasks = UINT64_MAX;
    bool reconnects = false;
    bool unchecked = false;
    bool patient = false;  // goes on trying to load
};

std::atomic<bool> s_stop{false};  // atomic: a signal sets it

Counts& openCounts(const std::string& path) {
    const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (file < 0 || ::ftruncate(file, sizeof(Counts)) != 0) throw std::runtime_error(path);
    void* const data = ::mmap(nullptr, sizeof(Counts), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (data == MAP_FAILED) throw std::runtime_error(path);
    ::close(file);
    return *static_cast<Counts*>(data);
}

// The errors that tasks ended with, by their codes.
class Errors {
 public:
    void add(int code) {
        const std::lock_guard lock(m_mutex);
        ++m_counts[kelm_error_name(code) + (" " + std::to_string(code))];
    }
    nlohmann::json json() {
        const std::lock_guard lock(m_mutex);
        return m_counts;
    }

 private:
    std::mutex m_mutex;
    std::map<std::string, uint64_t> m_counts;
};

struct Graph {
    kelm_graph* handle = nullptr;
    kelm_pool* pool = nullptr;
    simulator::Model model;
};

// One task after the other, each on other bytes, and a slot of its own. Idle after an end that was
// not good: the main thread starts it again.
class Lane {
 public:
    Lane(const Options& options, const Graph& graph, Counts& counts, Errors& errors, unsigned seed)
        : m_options(options),
          m_graph(graph),
          m_counts(counts),
          m_errors(errors),
          m_random(seed),
          m_expected(graph.model.outputSize) {}
    ~Lane() { kelm_slot_release(m_slot); }

    bool isIdle() const { return m_idle; }
    // With a fresh slot: what a task that was lost may still write into is of no use. False if
    // there is none.
    bool start() {
        kelm_slot_release(std::exchange(m_slot, nullptr));
        if (kelm_pool_acquire(m_graph.pool, &m_slot) != KELM_SUCCESS) return false;
        m_idle = false;
        submit();
        return true;
    }

 private:
    void submit() {
        if (!m_options.unchecked) {
            const uint32_t pattern = static_cast<uint32_t>(m_random());
            uint8_t* const input = bytes(kelm_slot_input);
            for (size_t i = 0; i < m_graph.model.inputSize; ++i) {
                input[i] = static_cast<uint8_t>(i * 31 + (pattern >> (8 * (i % 4))));
            }
            // A result that was never written must not pass for the one before it.
            std::fill_n(bytes(kelm_slot_output), m_expected.size(), kPoison);
        }
        KELM_INIT(kelm_task, task);
        task.slot = m_slot;
        task.deadline_ms = m_options.deadline;
        task.cookie = ++m_round;
        task.user = this;
        task.done = [](const kelm_result* result, void* user) {
            static_cast<Lane*>(user)->end(*result);
        };
        m_running = m_round;
        ++m_counts.taken;  // before the end may come
        const int error = kelm_infer_async(m_graph.handle, &task, nullptr);
        if (error == KELM_SUCCESS) return;
        --m_counts.taken;
        ++m_counts.refused;
        m_errors.add(error);
        m_idle = true;
    }

    void end(const kelm_result& result) {
        if (m_running.exchange(0) != result.cookie) ++m_counts.twice;
        count(result.error);
        if (result.error != KELM_SUCCESS) {
            m_errors.add(result.error);
            m_idle = true;
        } else if (s_stop || m_counts.right >= m_options.tasks) {
            m_idle = true;
        } else {
            submit();
        }
    }

    void count(int error) {
        if (error == KELM_SUCCESS) {
            ++(isRight() ? m_counts.right : m_counts.wrong);
        } else if (error == KELM_TIMEOUT || error == KELM_EXPIRED) {
            ++m_counts.unanswered;
        } else if (error == KELM_CONNECTION_LOST || error == KELM_NOT_CONNECTED) {
            ++m_counts.lost;
        } else {
            ++m_counts.failed;
        }
    }

    bool isRight() {
        if (m_options.unchecked) return true;
        m_graph.model.infer({bytes(kelm_slot_input), m_graph.model.inputSize}, m_expected);
        return std::equal(m_expected.begin(), m_expected.end(), bytes(kelm_slot_output));
    }

    uint8_t* bytes(void* (*buffer)(kelm_slot*, size_t*)) const {
        return static_cast<uint8_t*>(buffer(m_slot, nullptr));
    }

    const Options& m_options;
    const Graph& m_graph;
    Counts& m_counts;
    Errors& m_errors;
    std::minstd_rand m_random;
    std::vector<uint8_t> m_expected;
    kelm_slot* m_slot = nullptr;
    uint64_t m_round = 0;
    std::atomic<uint64_t> m_running{0};  // the task that is on its way, 0 for none
    std::atomic<bool> m_idle{true};      // atomics: ends come on threads of the library
};

void require(int error) {
    if (error != KELM_SUCCESS) throw std::runtime_error(kelm_last_error());
}

Graph load(kelm_client* client, const std::string& path, const Options& options) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> blob{std::istreambuf_iterator<char>(file), {}};
    const auto model =
        simulator::Model::parse({reinterpret_cast<const uint8_t*>(blob.data()), blob.size()});
    if (!model) throw std::runtime_error(path + " is no graph");
    Graph graph{nullptr, nullptr, *model};
    const std::string name = path.substr(path.rfind('/') + 1);
    KELM_INIT(kelm_graph_options, wish);
    wish.name = name.c_str();
    wish.deadline_ms = options.deadline;
    int error = KELM_BUSY;
    while (error != KELM_SUCCESS) {
        error = kelm_graph_from_memory(client, blob.data(), blob.size(), &wish, &graph.handle);
        if (error != KELM_SUCCESS && (!options.patient || s_stop)) require(error);
        if (error != KELM_SUCCESS) std::this_thread::sleep_for(kRetry);
    }
    const size_t input = options.unchecked ? kPlainBytes : model->inputSize;
    const size_t output = options.unchecked ? kPlainBytes : model->outputSize;
    require(kelm_pool_create(input, output, 0, 0, &graph.pool));
    return graph;
}

kelm_client* connect(const Options& options, Counts& counts) {
    KELM_INIT(kelm_client_options, wish);
    wish.flags = options.reconnects ? KELM_CLIENT_RECONNECT : 0;
    wish.name = options.name.c_str();
    wish.deadline_ms = options.deadline;
    wish.user = &counts;
    wish.on_connection = [](int up, void* user) {
        if (up != 0) ++static_cast<Counts*>(user)->reconnects;
    };
    kelm_client* client = nullptr;
    int error = kelm_connect(&wish, &client);
    for (; error != KELM_SUCCESS && options.patient && !s_stop;
         error = kelm_connect(&wish, &client)) {
        std::this_thread::sleep_for(kRetry);
    }
    require(error);
    return client;
}

// Starts what is idle, until it is time to stop and nothing is in flight. Returns what has kept it
// from going on, if something has.
std::string drive(const Options& options, const Counts& counts, kelm_client* client,
                  std::vector<std::unique_ptr<Lane>>& lanes) {
    const auto end = Clock::now() + std::chrono::duration<double>(std::min(options.seconds, 1e6));
    const auto isIdle = [](const auto& lane) { return lane->isIdle(); };
    std::string fault;
    while (!s_stop || !std::ranges::all_of(lanes, isIdle)) {
        const bool isLost = !options.reconnects && kelm_is_connected(client) == 0;
        if (Clock::now() >= end || counts.right >= options.tasks || isLost) s_stop = true;
        for (const auto& lane : lanes) {
            if (s_stop || !lane->isIdle() || lane->start() || options.patient) continue;
            fault = kelm_last_error();
            s_stop = true;
        }
        std::this_thread::sleep_for(kRetry);
    }
    return fault;
}

int run(const Options& options) {
    Counts& counts = openCounts(options.counts);
    Errors errors;
    kelm_client* const client = connect(options, counts);
    std::vector<Graph> graphs;
    for (const std::string& path : options.graphs) {
        graphs.push_back(load(client, path, options));
        ++counts.loaded;
    }
    std::vector<std::unique_ptr<Lane>> lanes;
    for (const Graph& graph : graphs) {
        for (int i = 0; i < options.depth; ++i) {
            lanes.push_back(std::make_unique<Lane>(options, graph, counts, errors,
                                                   static_cast<unsigned>(lanes.size() + 1)));
        }
    }
    const std::string fault = drive(options, counts, client, lanes);
    lanes.clear();
    for (const Graph& graph : graphs) {
        (void)kelm_graph_free(graph.handle);  // the connection may be lost, on purpose
        kelm_pool_free(graph.pool);
    }
    (void)kelm_close(client);
    if (!fault.empty()) throw std::runtime_error(fault);
    const uint64_t ended =
        counts.right + counts.wrong + counts.failed + counts.lost + counts.unanswered;
    const bool holds =
        counts.wrong == 0 && counts.unanswered == 0 && counts.twice == 0 && ended == counts.taken;
    std::cout << nlohmann::json{{"errors", errors.json()}, {"ended", ended}} << std::endl;
    return holds ? 0 : 1;
}

// A stop that came before waits: whoever starts this program may have blocked the signal.
void listenToStop() {
    struct sigaction stop = {};
    stop.sa_handler = [](int) { s_stop = true; };
    ::sigaction(SIGTERM, &stop, nullptr);
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGTERM);
    ::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

}  // namespace
}  // namespace kelm::prove

int main(int argc, char** argv) {
    using namespace kelm::prove;
    Options options;
    CLI::App app("A client that counts how every task ends and checks every result.");
    app.add_option("--name", options.name, "name of the client");
    app.add_option("--graph", options.graphs, "file of a graph")->required();
    app.add_option("--counts", options.counts, "file of the counts")->required();
    app.add_option("--depth", options.depth, "tasks of each graph in flight");
    app.add_option("--seconds", options.seconds, "how long; without: until SIGTERM");
    app.add_option("--tasks", options.tasks, "how many, in place of how long");
    app.add_option("--deadline-ms", options.deadline, "of every call");
    app.add_flag("--reconnect", options.reconnects, "survives the end of a connection");
    app.add_flag("--unchecked", options.unchecked, "for devices that touch no tensor");
    app.add_flag("--patient", options.patient, "goes on trying to connect and load");
    CLI11_PARSE(app, argc, argv);
    listenToStop();
    try {
        return run(options);
    } catch (const std::exception& error) {
        std::cerr << options.name << ": " << error.what() << "\n";
        return 2;
    }
}
