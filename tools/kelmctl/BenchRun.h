#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "tools/kelmctl/BenchRegion.h"
#include "tools/kelmctl/BenchRow.h"
#include "tools/kelmctl/ClientProcesses.h"
#include "tools/kelmctl/SignalQueue.h"
#include "tools/kelmctl/Stability.h"

namespace kelm::ctl {

// One rate that a search has tried.
struct BenchStep {
    double rate = 0.0;  // requests a second; 0: closed loop, to see what the service can do at all
    BenchRow row;
    bool held = false;
};

// A benchmark as the parent leads it: the rounds, the sign to stop, and what signals do to it.
//
// Threads: one. Borrowed: all that it is made with.
class BenchRun {
 public:
    BenchRun(const BenchSetup& setup, BenchRegion& region, const SignalQueue& signals,
             ClientProcesses& processes);

    // Until all clients have ended.
    void lead();

    // The signal that ended it early, 0 if none did.
    int signal() const { return m_signal; }
    // The windows of a run until it is stable.
    const Stability& stability() const { return m_stability; }
    // Those of a search, and the highest rate that has held.
    const std::vector<BenchStep>& steps() const { return m_steps; }
    std::optional<double> foundRate() const { return m_foundRate; }
    bool isSearchComplete() const { return m_isSearchComplete; }  // not ended early

 private:
    using Clock = std::chrono::steady_clock;

    bool waitReady();
    // False when it was ended before its time. `look` is called again and again meanwhile.
    bool runRound(double rate, const std::function<void()>& look = {});
    void runUntilStable();
    // False when it could not be done to its end.
    bool search();
    bool runStep(double rate);
    bool hasEndedRound() const;
    // After a short wait, with a look for signals.
    size_t countRunning();

    const BenchSetup& m_setup;
    BenchRegion& m_region;
    const SignalQueue& m_signals;
    ClientProcesses& m_processes;
    int m_signal = 0;
    Clock::time_point m_killTime = Clock::time_point::max();
    Stability m_stability;
    std::vector<BenchStep> m_steps;
    std::optional<double> m_foundRate;
    bool m_isSearchComplete = false;
};

}  // namespace kelm::ctl
