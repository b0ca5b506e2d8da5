// kelm-sim-load: a client that checks every result bit by bit. It keeps some inferences of each of
// its graphs in flight, on named shared memory and on descriptors in turn, and ends with one line:
//
//     name  inferences  wrong  failed  unanswered  per second  slowest in ms
//
// The exit status is 0 if nothing was wrong or unanswered, and nothing failed that must not.

#include <sys/mman.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <optional>
#include <random>
#include <stdexcept>
#include <thread>

#include "client/Client.h"
#include "tools/simulator/Model.h"
#include "utils/Mutex.h"
#include "utils/NonCopyable.h"
#include "utils/StringHelper.h"
#include "utils/UniqueFd.h"

namespace kelm::simulator {

namespace {

using Clock = std::chrono::steady_clock;
constexpr client::Deadline kPatience{60000};
constexpr uint8_t kPoison = 0xa5;
constexpr uint32_t kAllBlocks = 7;  // auxiliary: times, temperatures, debug info

struct Options {
    std::string name = "load";
    int depth = 4;  // of each graph
    double seconds = 10.0;
    uint64_t tasks = 0;    // in place of seconds
    bool failing = false;  // inferences may fail
    bool aux = false;
    std::string tensors = "mixed";
    int32_t subclass = 0;
    std::vector<std::string> graphs;
};

struct Graph {
    client::Graph handle;
    Model model;
};

// A memory file that the service gets by its descriptor.
class DescriptorBuffer : public NonCopyable {
 public:
    explicit DescriptorBuffer(size_t size)
        : m_fd(::memfd_create("tensor", MFD_CLOEXEC)), m_size(size) {
        if (::ftruncate(m_fd.get(), static_cast<off_t>(size)) != 0)
            throw std::runtime_error("memfd");
        void* data = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, m_fd.get(), 0);
        if (data == MAP_FAILED) throw std::runtime_error("mmap");
        m_data = static_cast<std::byte*>(data);
    }
    ~DescriptorBuffer() { ::munmap(m_data, m_size); }

    std::span<std::byte> span() const { return {m_data, m_size}; }
    client::Tensor tensor() const {
        return {client::Tensor::Kind::kDescriptor, "", m_fd.get(), m_size};
    }

 private:
    UniqueFd m_fd;
    size_t m_size;
    std::byte* m_data = nullptr;
};

std::span<uint8_t> bytes(std::span<std::byte> span) {
    return {reinterpret_cast<uint8_t*>(span.data()), span.size()};
}

// The books of all lanes.
class Counts {
 public:
    void add(const client::InferResult& result, bool right) EXCLUDES(m_mutex) {
        MutexLock lock(m_mutex);
        m_slowest = std::max(m_slowest, result.resultLatency);
        if (result.error.kind() == client::ErrorKind::kTimeout) {
            ++m_unanswered;
        } else if (result.error) {
            ++m_errors[result.error.text()];
        } else {
            ++(right ? m_right : m_wrong);
        }
    }
    // A run without any right result proves nothing, and is a failure.
    bool isClean(bool mayFail) EXCLUDES(m_mutex) {
        MutexLock lock(m_mutex);
        return m_wrong == 0 && m_unanswered == 0 && (mayFail || m_errors.empty()) && m_right > 0;
    }
    void print(const std::string& name, double seconds) EXCLUDES(m_mutex) {
        MutexLock lock(m_mutex);
        uint64_t failed = 0;
        for (const auto& [text, count] : m_errors) {
            failed += count;
            std::cerr << name << ": " << count << " times " << text << "\n";
        }
        const double slowest = std::chrono::duration<double, std::milli>(m_slowest).count();
        std::cout << StringHelper::format("%-12s %10lu %6lu %7lu %10lu %10.0f %13.1f\n", name,
                                          m_right, m_wrong, failed, m_unanswered,
                                          static_cast<double>(m_right) / seconds, slowest);
    }

 private:
    Mutex m_mutex;
    uint64_t m_right GUARDED_BY(m_mutex) = 0;
    uint64_t m_wrong GUARDED_BY(m_mutex) = 0;
    uint64_t m_unanswered GUARDED_BY(m_mutex) = 0;
    std::map<std::string, uint64_t> m_errors GUARDED_BY(m_mutex);
    std::chrono::nanoseconds m_slowest GUARDED_BY(m_mutex){0};
};

// How much is to be done by all lanes together.
class Quota {
 public:
    Quota(uint64_t tasks, double seconds)
        : m_tasks(tasks),
          m_end(Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                   std::chrono::duration<double>(seconds))) {}

    // Whether there is one more inference to be made.
    bool take() { return m_tasks > 0 ? m_taken.fetch_add(1) < m_tasks : Clock::now() < m_end; }

 private:
    const uint64_t m_tasks;  // 0: until the end
    const Clock::time_point m_end;
    std::atomic<uint64_t> m_taken{0};  // atomic: a count alone
};

// One inference after the other, each on other bytes.
class Lane {
 public:
    Lane(client::Client& service, const Graph& graph, unsigned seed, bool aux)
        : m_service(service), m_graph(graph), m_random(seed) {
        if (!aux) return;
        m_times.resize(graph.model.times);
        graph.model.timeTaken(m_times);
        m_debug.resize(graph.model.debugSize);
        graph.model.debugInfo(m_debug);
        m_aux.emplace(timesSize() + kThermalFloats * sizeof(float) + m_debug.size());
    }

    void run(bool descriptors, Quota& quota, Counts& counts) {
        if (descriptors) {
            const DescriptorBuffer input(m_graph.model.inputSize);
            const DescriptorBuffer output(m_graph.model.outputSize);
            runOn(input.span(), output.span(), {input.tensor(), output.tensor()}, quota, counts);
        } else {
            client::TensorPool pool(m_graph.model.inputSize, m_graph.model.outputSize);
            const auto slot = take(pool.acquire());
            runOn(slot->input(), slot->output(), {slot->inputTensor(), slot->outputTensor()}, quota,
                  counts);
        }
    }

 private:
    void runOn(std::span<std::byte> input, std::span<std::byte> output,
               const std::pair<client::Tensor, client::Tensor>& tensors, Quota& quota,
               Counts& counts) {
        client::InferRequest request;
        request.graphId = m_graph.handle.id;
        request.input = tensors.first;
        request.output = tensors.second;
        if (m_aux) {
            request.aux = m_aux->tensor();
            request.auxFlags = kAllBlocks;
        }
        std::vector<uint8_t> expected(output.size());
        while (quota.take()) {
            std::ranges::generate(bytes(input),
                                  [this] { return static_cast<uint8_t>(m_random()); });
            // A result that was never written must not pass for the one before it.
            std::ranges::fill(bytes(output), kPoison);
            const client::InferResult result = m_service.infer(request, kPatience);
            m_graph.model.infer(bytes(input), expected);
            counts.add(result, std::ranges::equal(bytes(output), expected) && isAuxRight());
            // A task that is still under way may yet write into these buffers.
            if (result.error.kind() == client::ErrorKind::kTimeout) return;
            if (!m_service.isConnected()) return;
        }
    }

    size_t timesSize() const { return m_times.size() * sizeof(float); }
    // But for the temperatures, which may change.
    bool isAuxRight() const {
        if (!m_aux) return true;
        const auto* data = reinterpret_cast<const char*>(m_aux->span().data());
        return std::memcmp(data, m_times.data(), timesSize()) == 0 &&
               std::memcmp(data + m_aux->span().size() - m_debug.size(), m_debug.data(),
                           m_debug.size()) == 0;
    }

    client::Client& m_service;
    const Graph& m_graph;
    std::minstd_rand m_random;
    std::vector<float> m_times;
    std::vector<uint8_t> m_debug;
    std::optional<DescriptorBuffer> m_aux;
};

Graph loadGraph(client::Client& service, const std::string& path, int32_t subclass) {
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> blob{std::istreambuf_iterator<char>(file), {}};
    const auto model = Model::parse({reinterpret_cast<const uint8_t*>(blob.data()), blob.size()});
    if (!model) throw std::runtime_error(path + " is no graph");
    client::GraphOptions options;
    options.name = path.substr(path.rfind('/') + 1);
    options.subclass = subclass;
    return {take(service.createGraphFromFile(path, options)), *model};
}

int run(const Options& options) {
    const auto service = take(client::Client::connect());
    require(service->registerClient(options.name));
    std::vector<Graph> graphs;
    for (const std::string& path : options.graphs) {
        graphs.push_back(loadGraph(*service, path, options.subclass));
    }
    Counts counts;
    // The time begins when all graphs are loaded.
    const auto start = Clock::now();
    Quota quota(options.tasks, options.seconds);
    std::vector<std::thread> lanes;
    for (const Graph& graph : graphs) {
        for (int i = 0; i < options.depth; ++i) {
            const bool descriptors = options.tensors == "descriptor" ||
                                     (options.tensors == "mixed" && lanes.size() % 2 == 0);
            const bool aux = options.aux && lanes.size() % 4 < 2;
            lanes.emplace_back(
                [&, descriptors, aux, seed = static_cast<unsigned>(lanes.size() + 1)] {
                    Lane(*service, graph, seed, aux).run(descriptors, quota, counts);
                });
        }
    }
    for (std::thread& lane : lanes) lane.join();
    counts.print(options.name, std::chrono::duration<double>(Clock::now() - start).count());
    if (service->isConnected()) require(service->unregister());
    return counts.isClean(options.failing) ? 0 : 1;
}

}  // namespace

}  // namespace kelm::simulator

int main(int argc, char** argv) {
    using namespace kelm::simulator;
    Options options;
    CLI::App app("A client of simulated accelerators that checks every result.");
    app.add_option("--name", options.name, "name of the client");
    app.add_option("--depth", options.depth, "inferences of each graph in flight");
    app.add_option("--seconds", options.seconds, "how long");
    app.add_option("--tasks", options.tasks, "how many inferences, in place of how long");
    app.add_flag("--failing", options.failing, "inferences may fail, but not be wrong");
    app.add_flag("--aux", options.aux,
                 "every second pair of inferences wants auxiliary blocks too");
    app.add_option("--tensors", options.tensors, "memory, descriptor or mixed")
        ->check(CLI::IsMember({"memory", "descriptor", "mixed"}));
    app.add_option("--subclass", options.subclass, "of the devices");
    app.add_option("--graph", options.graphs, "file of a graph")->required();
    CLI11_PARSE(app, argc, argv);
    try {
        return run(options);
    } catch (const std::exception& error) {
        std::cerr << options.name << ": " << error.what() << "\n";
        return 2;
    }
}
