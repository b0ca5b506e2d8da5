#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "tools/kelmctl/BenchOptions.h"
#include "tools/kelmctl/Histogram.h"

namespace kelm::ctl {

// Errors of one code, by the code's name.
struct ErrorCount {
    std::array<char, 48> name{};
    std::atomic<uint64_t> count{0};
};

// What one client did with one graph.
struct BenchCell {
    Histogram accept;                    // latency of the accept answer
    Histogram result;                    // latency of the result
    std::atomic<uint64_t> requests{0};   // inferences that ended, well or not
    std::array<ErrorCount, 8> errors{};  // the last one takes all further codes
};

enum class BenchStage : int { kStarting, kReady, kRunning, kDone, kFailed, kInterrupted };

// One client process's part of the memory that it shares with the parent.
struct BenchLane {
    std::atomic<BenchStage> stage{BenchStage::kStarting};
    std::atomic<uint64_t> firstResultNanos{0};  // from the client's start to its first result
    std::atomic<uint64_t> runNanos{0};
    std::array<char, 256> failure{};  // why the stage is kFailed
    std::array<BenchCell, kMaxBenchGraphs> cells{};
};

// The whole of it; made before the clients are forked. Untouched lanes cost no memory.
struct BenchRegion {
    std::atomic<bool> go{false};
    std::atomic<bool> stop{false};
    std::array<BenchLane, kMaxBenchClients> lanes{};
};

void addError(BenchCell& cell, const char* name);

}  // namespace kelm::ctl
