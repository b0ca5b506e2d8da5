#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelm::ctl {

constexpr int kMaxBenchClients = 512;
constexpr size_t kMaxBenchGraphs = 16;

// What `kelmctl bench` is asked to do, as it was written. Times in seconds, rates in requests a
// second of all clients together; what is not given has no value.
struct BenchOptions {
    int clients = 4;
    std::string depth = "8";  // inferences in flight per client, or "8,2": for each graph
    std::vector<std::string> graphs;
    bool graphByPath = false;  // the service opens the graphs' files itself
    bool assign = false;       // each client takes one graph, in turn
    // Shares of the graphs, "3,1", one entry per client; the last one serves the rest.
    std::vector<std::string> weights;
    std::optional<double> rate;  // open loop
    bool poisson = false;
    std::optional<double> seconds;
    std::optional<int64_t> count;  // inferences per client
    std::optional<double> warmup;
    std::optional<double> untilStable;  // at most so long
    std::optional<double> window;
    bool findRate = false;
    std::optional<double> p99;  // milliseconds
    int64_t maxErrors = 0;
    std::string jsonFile;
};

// The options when they have been checked: complete, and free of contradictions.
struct BenchSetup {
    // Throws UsageError with what is wrong in the words of the command line.
    explicit BenchSetup(const BenchOptions& options);

    enum class Kind { kTime, kCount, kUntilStable, kFindRate };

    Kind kind = Kind::kTime;
    size_t clients = 0;
    std::vector<std::string> graphs;
    std::vector<std::vector<int>> weights;  // by client and graph; 0: the client has it not
    std::vector<int> depths;  // one for all graphs together, or one for each; inferences
    double rate = 0.0;        // requests a second, 0: closed loop
    bool poisson = false;
    double seconds = 0.0;  // that are measured; the most of them, or those of one step
    double warmup = 0.0;   // seconds
    double window = 0.0;   // seconds
    uint64_t count = 0;    // inferences per client
    double p99Millis = 0.0;
    uint64_t maxErrors = 0;
};

}  // namespace kelm::ctl
