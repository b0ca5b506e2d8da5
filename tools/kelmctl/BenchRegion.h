#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>

#include "tools/kelmctl/BenchOptions.h"
#include "tools/kelmctl/Histogram.h"

namespace kelm::ctl {

// Errors of one code, by the code's name.
struct ErrorCount {
    std::array<char, 48> name{};
    std::atomic<uint64_t> count{0};
};

// What one client did with one graph in the measured time of a round. Requests that were due in it
// count, whenever they end.
struct BenchCell {
    Histogram accept;  // latency of the accept answer
    // Latency of the result, from the time when the request was due; also of those given up, which
    // have waited at least so long.
    Histogram result;
    std::atomic<uint64_t> requests{0};   // those with a result or an error, and those given up
    std::atomic<uint64_t> givenUp{0};    // still not sent or refused when the round had ended
    std::atomic<uint64_t> refusals{0};   // "too many tasks"; the request is sent again
    std::atomic<uint64_t> late{0};       // sent more than a millisecond after they were due
    std::array<ErrorCount, 8> errors{};  // the last one takes all further codes

    void addError(const char* name);
    void clear();
};

enum class BenchStage : int { kStarting, kReady, kDone, kFailed, kInterrupted };

// One client process's part of the memory that it shares with the parent.
struct BenchLane {
    std::atomic<BenchStage> stage{BenchStage::kStarting};
    std::atomic<uint64_t> rounds{0};            // rounds that have ended
    std::atomic<uint64_t> firstResultNanos{0};  // from the client's start to its first result
    std::atomic<uint64_t> runNanos{0};          // from the measured time's begin to the round's end
    std::array<char, 256> failure{};            // why the stage is kFailed
    std::array<BenchCell, kMaxBenchGraphs> cells{};
};

// One measurement that all clients do together. Their steady clocks are one.
struct BenchRound {
    using TimePoint = std::chrono::steady_clock::time_point;

    double rate = 0.0;  // requests a second of all clients; 0: closed loop
    TimePoint start;
    TimePoint measure;  // what is due earlier is not counted
    TimePoint end;      // nothing is due any more
};

// The whole of it; made before the clients are forked. Untouched lanes cost no memory.
struct BenchRegion {
    std::atomic<bool> stop{false};    // this round ends now, and no further one comes
    std::atomic<bool> warned{false};  // one client has printed the warning that all get
    std::atomic<uint64_t> rounds{0};  // rounds that have begun; the last one is described below
    BenchRound round;                 // written while no client is in a round
    std::array<BenchLane, kMaxBenchClients> lanes{};
};

}  // namespace kelm::ctl
