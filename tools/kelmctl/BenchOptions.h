#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kelm::ctl {

// What `kelmctl bench` is asked to do.
struct BenchOptions {
    int clients = 4;
    int depth = 8;          // inferences in flight per client
    double seconds = 10.0;  // ends the run when no count is given
    uint64_t count = 0;     // inferences per client; 0 means by time
    std::vector<std::string> graphs;
    bool graphByPath = false;  // the service opens the graphs' files itself
    // Shares of the graphs, "3,1", one entry per client; the last one serves the rest.
    std::vector<std::string> weights;
    std::string jsonFile;
};

constexpr int kMaxBenchClients = 512;
constexpr int kMaxBenchGraphs = 16;

// The shares of the graphs for one client; equal without an entry. Throws UsageError.
std::vector<int> parseWeights(const BenchOptions& options, int client);

}  // namespace kelm::ctl
